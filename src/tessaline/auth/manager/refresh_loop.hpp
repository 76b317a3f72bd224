#pragma once

#include "tessaline/auth/manager/manager.hpp"

namespace tessaline::auth {

/// One run of the refresh loop, on the current thread: sleeps until the refresh point, refreshes once, ends.
///
/// `LoopStanding` says which loop is active. A superseded one ends when it wakes; its successor wakes it,
/// since it may be sleeping until a refresh point that is no longer valid.
class RefreshLoop {
 public:
  explicit RefreshLoop(AuthManager& manager);
  ~RefreshLoop();
  RefreshLoop(const RefreshLoop&) = delete;
  RefreshLoop& operator=(const RefreshLoop&) = delete;

  void run();

 private:
  enum class Pass { kAgain, kEnd };

  Ref own_thread();
  Pass pass();
  bool stop_requested();
  bool is_superseded(const HeldLock& held);
  void refresh();

  double shortest_sleep() const;
  double wait_seconds(double remaining) const;
  void wait(double seconds);

  /// Wakes a superseded loop's thread and waits for its end.
  void retire(PyObject* older, PyObject* wake) const;
  void rest();

  AuthManager& manager_;
  LoopStanding standing_;
};

}  // namespace tessaline::auth
