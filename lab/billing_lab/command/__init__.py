"""The command line of billing-lab."""
