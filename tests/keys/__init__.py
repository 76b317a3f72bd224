"""`tessaline.keys`: what is accepted, what is rejected, and that no error shows any of it."""
