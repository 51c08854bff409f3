"""Servers of the tests, the shop behind them, and what stands between them and the daemon."""
