"""Message buses, and the other parties on them."""
