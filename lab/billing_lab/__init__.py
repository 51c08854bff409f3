"""The store lab: a store of one's own, with a device in front of it."""

__version__ = "0.1.0"
