"""Targets in Python: `one_input(data)` raises where a property does not hold."""
