"""Whole runs: exports a lab into one file, imports such a file, and compares two."""
