"""The transport whose settings a program chooses, and the limit on `Retry-After`, on the loopback."""
