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
/// A burst of requests on one route does not open a connection each: the first few do, and the others wait
/// for one of these to become free, but not long, since more connections are begun at a steady pace while any
/// wait.
class SessionPool {
 public:
  using TimePoint = Session::TimePoint;

  /// What a request wants of the pool.
  struct Wish {
    const Route& route;
    bool fresh;    ///< no connection that has been used
    bool patient;  ///< none but those that there are, while there is one: no descriptor was left for another
    const Deadline& deadline;
    Ticker& ticker;
  };

  /// The pool of the process; never destroyed.
  static SessionPool& shared();

  /// The session last used for the route, or else one without a connection, or else a new one: a session with
  /// another connection is not used for this route, since libcurl might keep the wrong one of the two.
  /// Sessions that were idle too long are closed, as is the oldest when enough are idle. Waits where
  /// connections to the route are many. Throws std::bad_alloc, TransportFailure (kTimedOut, kDescriptors),
  /// and what the ticker throws.
  Session& take(const Wish& wish, TimePoint now = std::chrono::steady_clock::now());

  /// A session of a parent process is left alone. Goes to whoever waits longest for its route.
  void give_back(Session& session, TimePoint now = std::chrono::steady_clock::now()) noexcept;

  /// Closes what has been idle too long at that time. Tells when the next one will have been; nothing when
  /// none is idle.
  std::optional<TimePoint> close_outdated(TimePoint now) noexcept;

  std::size_t idle_count() const;
  std::size_t waiting_count() const;

  /// Under the process mutex.
  bool has_idle() const noexcept;

  /// In a forked child, under the process mutex: leaves every session to the parent.
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

  /// The connections of a route, open or about to be, and when the latest of them was begun.
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
  std::vector<Waiter*> waiters_;  ///< in the order in which they came
};

/// A session of the shared pool for as long as this object lives.
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
