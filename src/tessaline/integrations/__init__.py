"""The wallet's bearer token on the requests of `requests`, `httpx`, `aiohttp` and gRPC: one module for each.

Importing this package imports none of them, nor do `tessaline.auth` and `tessaline.keeper`. The extras
`tessaline[requests]`, `[httpx]`, `[aiohttp]` and `[grpc]` bring them along. Beside them, `gevent` and
`eventlet` have a transport each, for managers whose requests are to let other greenlets run.

The four ask a source of tokens before every request: a `Keeper`, one of its wallets, an `AuthManager`, or
anything else with a `get_token()`. They agree on these points:

- They are bound to one service. No other origin is sent the token, also not after a redirect. It has to be
  https, or http to this machine.
- While there is no good token, requests wait for one as long as the source waits; event loops and gRPC's own
  threads do not stand still.
- Where the source raises, its error comes out unchanged (from gRPC as an `RpcError` that names it), and
  nothing has been sent.
- The token stands in no repr of a request, an answer or an error. One that no header can carry is a
  `ValueError`.
- An answer of 401 is told to the source where it has a `report_refused(token)`, and the request is repeated
  once if the source has another token then. A body that can be sent only once is not repeated.
"""
