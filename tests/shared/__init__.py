"""What tests of several folders use."""
