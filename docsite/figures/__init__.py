"""The drawings of the documentation, as SVG whose text stays text."""
