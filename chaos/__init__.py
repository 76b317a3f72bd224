"""Every fault at every moment, and years of use: what must come of it is worked out beforehand.

flows: one flow of a manager over real sockets, with the development server's faults in its way; a written
model of the contract foretells requests, delays, states and results.
lives: many managers that live for years on clocks of their own.
"""
