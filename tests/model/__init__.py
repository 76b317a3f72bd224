"""A model of the manager's threads, searched exhaustively. Run with `make model`."""
