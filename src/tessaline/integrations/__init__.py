"""The wallet's bearer token on the requests of `requests`, `httpx`, `aiohttp` and gRPC: one module for each.

Importing this package imports none of them, nor do `tessaline.auth` and `tessaline.keeper`. The extras
`tessaline[requests]`, `[httpx]`, `[aiohttp]` and `[grpc]` install them. For `gevent` and `eventlet` there is
a transport each, for managers whose requests yield to other greenlets.

The four hooks ask a token source before every request: a `Keeper`, one of its wallets, an `AuthManager`, or
any object with `get_token()`. They guarantee:

- A hook is bound to one service. The token is sent to no other origin, not even after a redirect. The URL
  must be https, or http to this machine.
- Without a valid token, requests wait as long as the source waits; event loops and gRPC's own
  threads are not blocked.
- An error of the source passes through unchanged (from gRPC as an `RpcError` that names it), and
  nothing has been sent.
- The token appears in no repr of a request, a response or an error. A token that a header cannot carry
  raises `ValueError`.
- A response with status 401 is reported to the source if it has `report_refused(token)`, and the request is
  repeated once if the source has a new token. A body that can be sent only once is not repeated.
"""
