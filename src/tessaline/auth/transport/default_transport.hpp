#pragma once

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

/// The default HTTP transport: one request over the process's pooled connections.
///
/// `headers` is a mapping of str to str or None, `body` str, bytes or None. Returns the tuple (status, dict
/// of response headers, body bytes) for every status. Raises ConnectionError, TimeoutError, ssl.SSLError,
/// http.client.BadStatusLine for a response that is not HTTP, ValueError for an invalid request, and what a
/// signal handler raises. Runs without the GIL.
python::Ref default_http_transport(PyObject* method, PyObject* url, PyObject* headers, PyObject* body);

}  // namespace tessaline::auth
