"""Measures the daemon beside its floors."""
import pathlib
import sys

TREE = pathlib.Path(__file__).resolve().parents[2]
for folder in ("tests", "lab"):
    if str(TREE / folder) not in sys.path:
        sys.path.insert(0, str(TREE / folder))
