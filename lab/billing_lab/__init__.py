"""The store lab: a test store with a device in front of it, for developers of apps."""

__version__ = "0.1.0"
