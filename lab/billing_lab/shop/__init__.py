"""The store's goods, purchases and answers, and the faults that a user sets."""
