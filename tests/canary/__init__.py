"""Secrets of the whole suite, looked for in every text that the suite gives rise to."""

from .registry import overheard, plant, resting, watch

__all__ = ["overheard", "plant", "resting", "watch"]
