#pragma once

#include <type_traits>
#include <utility>

namespace tessaline::auth::python {

/// Holds the calling thread for ever.
[[noreturn]] void park() noexcept;

/// Parks the thread that is unwound through it.
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

/// Runs `body`, in which the interpreter may end this thread, and parks the thread when it does.
///
/// A daemon thread that asks for the interpreter's lock during the interpreter's shutdown is held for ever by
/// Python 3.14 and later, which comes to the same. Python 3.13 ends it by pthread_exit, which unwinds through
/// every frame below it. Passing our frames would run destructors that drop references without the lock, and
/// a noexcept function or a catch-all on the way aborts the process. Parking keeps the frames as they are
/// until the process ends. musl's pthread_exit unwinds nothing, and what it leaves of a thread that Python
/// made is its stack, which nobody joins. `body` must own nothing, and throw nothing.
///
/// The interpreter throws no C++ exception, and only some C++ runtimes have a name to catch its unwinding by:
/// all run destructors.
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
