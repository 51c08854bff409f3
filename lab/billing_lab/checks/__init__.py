"""Checks of an app: what it asked, judged by the journal."""
