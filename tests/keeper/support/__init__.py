"""A service that fails as it is told, wallets at it, and keepers that a test drives by their clock."""
