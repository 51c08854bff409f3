"""The device of a daemon: settings, certificates, credentials and token."""
