"""The keeper: tokens stay valid through outages, eras, clock jumps and forks."""
