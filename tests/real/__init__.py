"""Requests and whole logins through servers and proxies of others, which `make real` installs and runs."""
