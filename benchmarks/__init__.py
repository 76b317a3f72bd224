"""How fast the component is, compared with alternatives (make bench)."""
