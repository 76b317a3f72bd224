#pragma once

#include <cxxabi.h>

#include <type_traits>
#include <utility>

namespace tessaline::auth::python {

/// Holds the calling thread for ever.
[[noreturn]] void park() noexcept;

/// Runs `body`, in which the interpreter may end this thread, and parks the thread when it does.
///
/// A daemon thread that asks for the interpreter's lock during the interpreter's shutdown is held for ever by
/// Python 3.14 and later, which comes to the same. Python 3.13 ends it by pthread_exit, which unwinds through
/// every frame below it. Passing our frames would run destructors that
/// drop references without the lock, and a noexcept function or a catch-all on the way aborts the process.
/// Parking keeps the frames as they are until the process ends. `body` must own nothing.
///
/// The unwinding is no C++ exception, so the runtime has no object for the handler's reference.
template <class Body>
__attribute__((no_sanitize("null"))) auto door(Body&& body) -> std::invoke_result_t<Body> {
  try {
    return std::forward<Body>(body)();
  } catch (abi::__forced_unwind&) {
    park();
  }
}

}  // namespace tessaline::auth::python
