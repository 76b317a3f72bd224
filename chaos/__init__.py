"""Every fault at every moment, and years of use, compared with a model of the contract.

flows: one flow of a manager over real sockets, with the development server's faults; a model of the contract
predicts requests, delays, states and results.
lives: many managers that live for years on their own clocks.
"""
