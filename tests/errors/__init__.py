"""`tessaline.errors` beside the page of errors and the type checker."""
