"""Own answers: bodies that the lab's user sets in place of the built-in ones."""
