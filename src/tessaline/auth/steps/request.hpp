#pragma once

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

/// One exchange with the manager's server through its transport, without retry and whatever the status.
///
/// `body_dict` (or None) is sent as JSON, `headers` (or None) are merged with the content type. Returns the
/// tuple (status, response headers, decoded value): the JSON value of the body, its text if it is not JSON,
/// None if it is empty. Errors of the transport and of the encoder are raised unchanged.
python::Ref http_request(PyObject* manager, PyObject* method, PyObject* path, PyObject* body_dict,
                         PyObject* headers);

}  // namespace tessaline::auth
