"""Surroundings of the daemon for tests and benchmarks: a bus, a store server, a device."""
import pathlib
import sys

# Parts that the store lab has are imported from it.
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "lab"))
