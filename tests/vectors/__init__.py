"""Public tables of known answers, and what the component makes of them."""
