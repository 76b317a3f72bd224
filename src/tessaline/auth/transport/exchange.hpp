#pragma once

#include <Python.h>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/python/ref.hpp"
#include "tessaline/auth/transport/raise_failure.hpp"

// What all transports share: from Python's arguments to the response. Time-out, trust, proxies and user agent
// are each transport's own.

namespace tessaline::auth {

/// The request to send: `headers` is a mapping of str to str or None, `body` str, bytes or None. Raises
/// TypeError and ValueError, with texts that show no value.
http::Request request_of(PyObject* method, PyObject* url, PyObject* headers, PyObject* body);

/// Makes the exchange without the GIL, and returns the tuple (status, dict of response headers, body bytes)
/// for every status. Raises ConnectionError, TimeoutError, ssl.SSLError, http.client.BadStatusLine for a
/// response that is not HTTP, ValueError for an invalid request, and what a signal handler raises. By
/// `chosen`, notes of errors say where the settings came from.
python::Ref make_exchange(const http::Request& request, const ChosenSettings& chosen = {});

}  // namespace tessaline::auth
