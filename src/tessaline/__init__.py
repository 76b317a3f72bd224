"""Client library of the networked service: the wallet authentication component is `tessaline.auth`."""

__version__ = "0.1.0"
