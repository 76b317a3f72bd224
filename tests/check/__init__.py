"""`python -m tessaline check`: its report, its exit codes, and what it keeps to itself."""
