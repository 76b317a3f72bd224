"""Fuzz targets, their corpora, and the runner."""
