"""The drawings of the documentation, as SVG with real text."""
