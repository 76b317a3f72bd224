#pragma once

#include "tessaline/auth/manager/manager.hpp"

namespace tessaline::auth {

/// The token that this thread's `get_token` found expired, for the poll that it calls through the instance:
/// one that is renewed before the poll's own first look must not pass for the old one.
class ExpiredToken {
 public:
  ExpiredToken(const AuthManager& manager, PyObject* token) noexcept : before_(current) {
    current = {&manager, token};
  }
  ~ExpiredToken() { current = before_; }
  ExpiredToken(const ExpiredToken&) = delete;
  ExpiredToken& operator=(const ExpiredToken&) = delete;

  /// An empty reference where the poll was not called by `get_token`.
  static Ref of(const AuthManager& manager) noexcept {
    return current.manager == &manager ? Ref::borrow(current.token) : Ref();
  }

 private:
  struct Entry {
    const AuthManager* manager;
    PyObject* token;
  };

  static inline thread_local constinit Entry current{nullptr, nullptr};

  Entry before_;
};

}  // namespace tessaline::auth
