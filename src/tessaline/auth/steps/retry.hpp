#pragma once

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

/// What `request_with_retry` is asked for; borrowed references, None where nothing was given.
struct RetriedRequest {
  PyObject* method;
  PyObject* path;
  PyObject* body_dict;
  PyObject* headers;
  PyObject* max_attempts;  ///< bound on tries that end in a retryable condition; None: no bound
  bool is_verify;          ///< 404, 409 and 410 come back instead of being retried
};

/// Sends the request through the manager's `_http_request` until it is answered, refused for good, or the
/// manager closes, with a back-off of 1, 2, 4 … 60 s (no jitter) between tries. Returns the answer's
/// triple. Raises AuthError, RegistrationError or ProfileError for a refusal and NetworkError when the
/// tries are used up. Takes no lock; waits on the calling thread.
python::Ref request_with_retry(PyObject* manager, const RetriedRequest& request);

}  // namespace tessaline::auth
