"""A service with scripted faults, wallets, and keepers that a test drives by their clock."""
