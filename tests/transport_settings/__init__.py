"""The transport whose settings a program chooses, and the bound on `Retry-After`, on the loopback."""
