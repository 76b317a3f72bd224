"""Secrets of the whole suite, searched for in every text that the suite produces."""

from .registry import overheard, plant, resting, watch

__all__ = ["overheard", "plant", "resting", "watch"]
