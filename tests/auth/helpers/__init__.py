"""Scripted counterparts of the component: a server, clocks, threads with deadlines, tokens, fake time."""
