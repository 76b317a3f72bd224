"""A service in memory, clocks that a test moves, threads that end, and managers over them."""
