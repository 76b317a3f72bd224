#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "tessaline/auth/http/session.hpp"

namespace tessaline::auth::http {

/// Owns every session of the process, idle and leased. Any thread may take and give back.
class SessionPool {
 public:
  using TimePoint = Session::TimePoint;

  static constexpr std::size_t kMaxIdle = 32;
  static constexpr std::size_t kWarmOrigins = 4;
  static constexpr std::chrono::seconds kMaxIdleTime{60};

  /// The pool of the process; never destroyed.
  static SessionPool& shared();

  /// Prefers the session last used for `origin`, then one that has no connection to lose. Sessions that were
  /// idle too long are closed. Throws std::bad_alloc.
  Session& take(const std::string& origin, TimePoint now);

  /// A session of a parent process is left alone.
  void give_back(Session& session, TimePoint now) noexcept;

  std::size_t idle_count() const;

  // Below: under the process mutex.

  void wake_leased() noexcept;
  void forget_all() noexcept;

 private:
  using Owned = std::unique_ptr<Session>;

  std::vector<Owned> remove_outdated(TimePoint now);
  Owned remove_oldest_beyond_bound() noexcept;
  Session* choose_idle(const std::string& origin) const noexcept;
  std::size_t count_idle() const noexcept;

  std::vector<Owned> sessions_;
};

/// A session of the shared pool for as long as this object lives.
class SessionLease {
 public:
  explicit SessionLease(const std::string& origin);
  ~SessionLease();
  SessionLease(const SessionLease&) = delete;
  SessionLease& operator=(const SessionLease&) = delete;

  Session& session() const noexcept { return session_; }

 private:
  Session& session_;
};

}  // namespace tessaline::auth::http
