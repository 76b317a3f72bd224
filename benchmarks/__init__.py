"""How fast the component is, beside what people would use instead (make bench)."""
