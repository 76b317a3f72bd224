"""Constant time: no branch and no address depends on key bytes. Run with `make ctime`."""
