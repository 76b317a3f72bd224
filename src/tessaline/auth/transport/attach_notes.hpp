#pragma once

#include <Python.h>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/transport/raise_failure.hpp"

namespace tessaline::auth {

/// Adds notes for `failure` to the exception.
void attach_notes(PyObject* exception, const http::TransportFailure& failure, const http::Request& request,
                  const ChosenSettings& chosen);

}  // namespace tessaline::auth
