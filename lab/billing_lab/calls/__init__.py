"""The journal of calls on the lab's bus."""
