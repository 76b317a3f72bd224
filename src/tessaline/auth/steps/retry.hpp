#pragma once

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

/// The arguments of `request_with_retry`: borrowed references, None if not given.
struct RetriedRequest {
  PyObject* method;
  PyObject* path;
  PyObject* body_dict;
  PyObject* headers;
  PyObject* max_attempts;  ///< limit on tries that end in a transient error; None: no limit
  bool is_verify;          ///< 404, 409 and 410 are returned instead of retried
};

/// Sends the request through the manager's `_http_request` until there is a response to return or a permanent
/// error, or the manager closes, with a back-off of 1, 2, 4 … 60 s (no jitter) between tries. Returns the
/// response's triple. Raises AuthError, RegistrationError or ProfileError for a permanent error, and
/// NetworkError after the last try. Takes no lock; waits on the calling thread.
python::Ref request_with_retry(PyObject* manager, const RetriedRequest& request);

}  // namespace tessaline::auth
