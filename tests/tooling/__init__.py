"""The project itself: its rules, tools, demo and files."""
