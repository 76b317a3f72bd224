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

  /// The session last used for `origin`, or else one without a connection, or else a new one: a session with
  /// a connection to another server is not used for this one, since libcurl might keep the wrong one of the
  /// two. Sessions that were idle too long are closed, as is the oldest when enough are idle. Throws
  /// std::bad_alloc.
  Session& take(const std::string& origin, TimePoint now);

  /// A session of a parent process is left alone.
  void give_back(Session& session, TimePoint now) noexcept;

  std::size_t idle_count() const;

  /// In a forked child, under the process mutex: leaves every session to the parent.
  void forget_all() noexcept;

 private:
  using Owned = std::unique_ptr<Session>;

  std::vector<Owned> remove_outdated(TimePoint now);
  Owned remove(const Session& session) noexcept;
  Owned remove_oldest_idle() noexcept;
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
