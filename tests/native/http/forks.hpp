#pragma once

#include <pthread.h>

#include "tessaline/auth/http/process.hpp"

namespace tessaline::auth::http::testing {

/// As the modules that use `http/` do, before any request.
inline const int watching_forks =
    pthread_atfork(process::before_fork, process::after_fork_in_parent, process::after_fork_in_child);

}  // namespace tessaline::auth::http::testing
