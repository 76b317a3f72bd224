"""Repeats every test in one process and finds what grows with each repetition."""
