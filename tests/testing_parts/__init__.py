"""The parts for tests of programs: the clock, the service, and pytest's fixtures of them."""
