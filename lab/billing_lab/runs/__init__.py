"""Whole runs: a lab as one file, and what is different between two."""
