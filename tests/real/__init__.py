"""Requests and whole logins through third-party servers and proxies, which `make real` installs and runs."""
