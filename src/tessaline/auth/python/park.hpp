#pragma once

#include <type_traits>
#include <utility>

namespace tessaline::auth::python {

/// Blocks the calling thread for ever.
[[noreturn]] void park() noexcept;

/// Parks a thread that unwinds through it.
class ParkedUnlessDone {
 public:
  ParkedUnlessDone() = default;
  ParkedUnlessDone(const ParkedUnlessDone&) = delete;
  ParkedUnlessDone& operator=(const ParkedUnlessDone&) = delete;
  ~ParkedUnlessDone() {
    if (!done_) park();
  }

  void done() noexcept { done_ = true; }

 private:
  bool done_ = false;
};

/// Runs `body`, in which the interpreter may end this thread, and parks the thread if it does.
///
/// When a daemon thread takes the GIL during the interpreter's shutdown, Python 3.14 and later block it for
/// ever, as this does. Python 3.13 ends it by pthread_exit, which unwinds every frame below. In our frames
/// that would run destructors that release references without the GIL, and would abort the process at a
/// noexcept function or a catch-all. Parking keeps the frames as they are until the process ends. musl's
/// pthread_exit does not unwind; it leaks only the stack of a thread that Python made and nobody joins.
/// `body` must own nothing, and throw nothing.
///
/// The interpreter throws no C++ exception, and only some C++ runtimes can catch its unwinding by a type: all
/// run destructors.
template <class Body>
auto door(Body&& body) -> std::invoke_result_t<Body> {
  ParkedUnlessDone guard;
  if constexpr (std::is_void_v<std::invoke_result_t<Body>>) {
    std::forward<Body>(body)();
    guard.done();
  } else {
    const auto result = std::forward<Body>(body)();
    guard.done();
    return result;
  }
}

}  // namespace tessaline::auth::python
