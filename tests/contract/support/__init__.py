"""A service in memory, clocks that a test advances, threads that end, and managers using them."""
