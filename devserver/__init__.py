"""A development server that plays the service a wallet logs in to: ``python -m devserver --help``."""
