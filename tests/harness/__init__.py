"""What tests and benchmarks need around the daemon: a bus, a store server, a device."""
import pathlib
import sys

# What the store lab has of it stands there once.
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "lab"))
