"""`tessaline.keys`: what is read, what is refused, and that no error shows any of it."""
