"""A development server that simulates the service a wallet logs in to: ``python -m devserver --help``."""

__version__ = "0.1.0"
