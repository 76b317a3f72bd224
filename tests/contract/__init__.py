"""The contract as a whole: both serving paths, every wait, every race, and what must never be visible."""
