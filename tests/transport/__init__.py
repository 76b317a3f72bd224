"""The default HTTP transport from Python, against real servers on the loopback."""
