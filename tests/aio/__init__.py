"""Tokens in event loops: which tasks wait where, what wakes them, and what is served without waiting."""
