#pragma once

#include <Python.h>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/python/ref.hpp"
#include "tessaline/auth/transport/raise_failure.hpp"

// What every transport has in common: from what Python asks for to the answer. Which time-out, trust, proxies
// and name it goes out with, is the transport's.

namespace tessaline::auth {

/// What is to be sent: `headers` is a mapping of str to str or None, `body` str, bytes or None. Raises
/// TypeError and ValueError, with a text that shows no value.
http::Request request_of(PyObject* method, PyObject* url, PyObject* headers, PyObject* body);

/// Makes the exchange without the interpreter's lock, and returns the tuple (status, dict of response
/// headers, body bytes) for every status. Raises ConnectionError, TimeoutError, ssl.SSLError,
/// http.client.BadStatusLine for an answer that is not HTTP, ValueError for what cannot be sent, and what a
/// signal handler raises. `chosen` tells notes of errors where the settings came from.
python::Ref make_exchange(const http::Request& request, const ChosenSettings& chosen = {});

}  // namespace tessaline::auth
