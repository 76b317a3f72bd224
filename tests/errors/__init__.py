"""`tessaline.errors`, compared with the page of errors and the type checker."""
