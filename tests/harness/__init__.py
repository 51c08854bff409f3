"""What tests, demo and benchmarks need around the daemon: a bus, a store server, a device."""
