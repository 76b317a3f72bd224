"""The contract as a whole: both serving paths, every wait, every race, and what may never be seen outside."""
