"""Tests of the wallet authentication component, driven from Python with in-memory transports."""
