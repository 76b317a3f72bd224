"""Runs the documentation's examples, and compares its statements with the component."""
