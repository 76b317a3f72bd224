#pragma once

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

/// One exchange with the manager's server through its transport, without retry and without a look at the
/// status.
///
/// `body_dict` (or None) is sent as JSON, `headers` (or None) are merged over the content type. Returns the
/// tuple (status, response headers, decoded value): the JSON value of the body, its text where it is not
/// JSON, None where it is empty. Errors of the transport and of the encoder pass through.
python::Ref http_request(PyObject* manager, PyObject* method, PyObject* path, PyObject* body_dict,
                         PyObject* headers);

}  // namespace tessaline::auth
