"""The package's test helpers: the clock, the service, and pytest's fixtures of them."""
