#pragma once

#include <unistd.h>

#ifdef TESSALINE_COUNTED
extern "C" {
#include <gcov.h>
}
#endif

namespace tessaline::auth::http::testing {

/// Ends a forked child at once; an instrumented build writes its counts first, unlike with `_exit`.
[[noreturn]] inline void leave(int status) {
#ifdef TESSALINE_COUNTED
  __gcov_dump();
#endif
  _exit(status);
}

}  // namespace tessaline::auth::http::testing
