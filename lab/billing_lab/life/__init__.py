"""The life of purchases, on a clock of the lab's own."""
