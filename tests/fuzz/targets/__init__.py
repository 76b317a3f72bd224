"""Targets in Python: `one_input(data)` raises if a property does not hold."""
