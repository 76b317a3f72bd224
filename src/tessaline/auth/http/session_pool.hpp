#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "tessaline/auth/http/deadline.hpp"
#include "tessaline/auth/http/session.hpp"
#include "tessaline/auth/http/ticker.hpp"

namespace tessaline::auth::http {

/// Owns every session of the process, idle and leased. Any thread may take and give back.
///
/// In a burst of requests on one route only the first few open a connection at once. The others wait for one
/// of these; while any waits, further connections are opened at a steady pace.
class SessionPool {
 public:
  using TimePoint = Session::TimePoint;

  /// What a request wants of the pool.
  struct Wish {
    const Route& route;
    bool fresh;    ///< no used connection
    bool patient;  ///< only existing connections, if there are any: there was no descriptor for another
    const Deadline& deadline;
    Ticker& ticker;
  };

  /// The pool of the process; never destroyed.
  static SessionPool& shared();

  /// The session last used for the route, else one without a connection, else a new one. Never a session with
  /// another connection: libcurl might keep the wrong one of the two. Closes sessions that were idle too
  /// long, and the oldest if enough are idle. Waits if the route has many connections. Throws std::bad_alloc,
  /// TransportFailure (kTimedOut, kDescriptors), and what the ticker throws.
  Session& take(const Wish& wish, TimePoint now = std::chrono::steady_clock::now());

  /// Ignores a session of a parent process. The first waiter for its route gets it.
  void give_back(Session& session, TimePoint now = std::chrono::steady_clock::now()) noexcept;

  /// Closes what has been idle too long at `now`. Returns when the next one is due; empty if none is idle.
  std::optional<TimePoint> close_outdated(TimePoint now) noexcept;

  std::size_t idle_count() const;
  std::size_t waiting_count() const;

  /// Under the process mutex.
  bool has_idle() const noexcept;

  /// In a forked child, under the process mutex: abandons every session, which belong to the parent.
  void forget_all() noexcept;

 private:
  using Owned = std::unique_ptr<Session>;

  /// A thread that waits for a session.
  class Waiter;

  struct Chosen {
    Session* session = nullptr;
    bool may_connect = false;
    TimePoint next_try{};
  };

  /// The connections of a route, open or about to be, and when the latest was begun.
  struct Burst {
    std::size_t connections = 0;
    TimePoint latest{};
  };

  Burst burst_on(const Route& route) const noexcept;
  Chosen choose(const Wish& wish, const Waiter* self, TimePoint now, std::vector<Owned>& outdated);
  static Session& lease(Session& session, const Route& route);
  Session* find_connected(const Route& route) const noexcept;
  Session* find_unconnected() const noexcept;
  bool hand_over(Session& session) noexcept;
  void wake_first(const Route& route) noexcept;
  Owned remove(const Session& session) noexcept;
  Owned remove_oldest_idle() noexcept;
  Owned remove_outdated(TimePoint now) noexcept;
  std::size_t count_idle() const noexcept;

  std::vector<Owned> sessions_;
  std::vector<Waiter*> waiters_;  ///< in order of arrival
};

/// Leases a session of the shared pool.
class SessionLease {
 public:
  explicit SessionLease(const SessionPool::Wish& wish) : session_(SessionPool::shared().take(wish)) {}
  ~SessionLease() { SessionPool::shared().give_back(session_); }
  SessionLease(const SessionLease&) = delete;
  SessionLease& operator=(const SessionLease&) = delete;

  Session& session() const noexcept { return session_; }

 private:
  Session& session_;
};

}  // namespace tessaline::auth::http
