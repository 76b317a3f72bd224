"""What the documentation says, done and compared with what the component does."""
