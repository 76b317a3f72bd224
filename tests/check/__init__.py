"""`python -m tessaline check`: its report and exit codes, and that it shows no secret."""
