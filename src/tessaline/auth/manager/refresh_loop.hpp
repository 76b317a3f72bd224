#pragma once

#include "tessaline/auth/manager/manager.hpp"

namespace tessaline::auth {

/// One run of the refresh loop, on the thread that made it: sleeps until the refresh point, refreshes once,
/// ends.
///
/// The loop of the thread started last is the one that counts. One that was superseded ends when it next
/// wakes; since it may be asleep until a refresh point that is no longer its own, its successor wakes it.
class RefreshLoop {
 public:
  explicit RefreshLoop(AuthManager& manager);
  ~RefreshLoop();
  RefreshLoop(const RefreshLoop&) = delete;
  RefreshLoop& operator=(const RefreshLoop&) = delete;

  void run();

 private:
  enum class Pass { kAgain, kEnd };

  Pass pass();
  bool stop_requested();
  bool superseded();
  void refresh();
  void resign() noexcept;

  double poll_seconds() const;
  double wait_seconds(double remaining) const;
  void wait(double seconds);
  void rest();
  Ref living_older_thread() const;

  AuthManager& manager_;
  Ref me_;
  bool was_registered_ = false;
};

/// `thread.is_alive()`; false for none, and for what cannot tell.
bool is_alive(PyObject* thread);

}  // namespace tessaline::auth
