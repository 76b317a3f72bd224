"""Tokens in event loops: who waits where, what wakes it, and what is served without waiting."""
