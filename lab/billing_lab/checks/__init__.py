"""Checks of an app: the journal's requests are compared with rules and expectations."""
