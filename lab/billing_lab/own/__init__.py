"""Answers of a team's own in place of the built-in ones."""
