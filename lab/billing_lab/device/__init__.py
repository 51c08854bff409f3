"""The device that calls the shop: its bus, its service, its settings and its view of the file system."""
