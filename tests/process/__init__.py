"""Programs in separate processes that import, use and exit with the component."""
