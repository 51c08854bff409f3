"""The control interface of a lab that is up, and the operations behind it."""
