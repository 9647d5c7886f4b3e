"""A search for what breaks the daemon: random acts of everybody around it, and a model of what must be true afterwards."""
