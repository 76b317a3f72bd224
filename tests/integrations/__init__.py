"""Tokens on the requests of requests, httpx, aiohttp and gRPC."""
