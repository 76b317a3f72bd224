"""Unusual threads, time and stacks: greenlets, faked clocks, event loops, forks."""
