"""Used by the tests of several folders."""
