"""How many instructions the hot paths take."""
