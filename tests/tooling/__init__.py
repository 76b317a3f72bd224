"""The project itself: its rules, its tools, its demo and its files."""
