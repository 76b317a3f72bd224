"""The component over real sockets, against the development server."""
