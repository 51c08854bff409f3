"""The HTTPS server in front of the shop: connections, protocols, and answers spoiled by faults."""
