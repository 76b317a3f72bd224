"""The keeper: tokens that stay good through outages, eras, jumps of the clock and forks."""
