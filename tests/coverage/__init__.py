"""Which lines and branches the tests reach, and which they cannot."""
