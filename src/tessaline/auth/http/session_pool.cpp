#include "tessaline/auth/http/session_pool.hpp"

#include <algorithm>
#include <mutex>
#include <tuple>
#include <utility>

#include "tessaline/auth/http/failure.hpp"
#include "tessaline/auth/http/idle_reaper.hpp"
#include "tessaline/auth/http/limits.hpp"
#include "tessaline/auth/http/process.hpp"

namespace tessaline::auth::http {

/// All members except `sleep` are called under the process mutex.
class SessionPool::Waiter {
 public:
  Waiter(SessionPool& pool, const Wish& wish) : pool_(pool), wish_(wish) {}
  ~Waiter() {
    Session* unused = nullptr;
    {
      const std::lock_guard lock(process::mutex());
      if (!enlisted_) return;
      std::erase(pool_.waiters_, this);
      unused = granted;
    }
    if (unused != nullptr) pool_.give_back(*unused);
  }
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  void enlist() {
    if (enlisted_) return;
    pool_.waiters_.push_back(this);
    enlisted_ = true;
  }

  bool wants(const Route& route) const noexcept { return wish_.route == route; }
  bool takes_used() const noexcept { return !wish_.fresh; }

  void wake() noexcept {
    woken_ = true;
    awake_.notify_one();
  }

  /// To be called without the mutex, inside libcurl. Returns when woken or at `until`.
  void sleep(TimePoint until) {
    const process::Outside outside;
    std::unique_lock lock(process::mutex());
    awake_.wait_until(lock, until, [this] { return woken_; });
    woken_ = false;
  }

  Session* granted = nullptr;  ///< leased for this one

 private:
  SessionPool& pool_;
  const Wish& wish_;
  std::condition_variable awake_;
  bool enlisted_ = false;
  bool woken_ = false;
};

SessionPool& SessionPool::shared() {
  static SessionPool& pool = *new SessionPool;
  return pool;
}

Session& SessionPool::take(const Wish& wish, TimePoint now) {
  Waiter waiter(*this, wish);
  Owned spare;
  for (;;) {
    std::vector<Owned> outdated;  // both closed after the lock is released
    Owned surplus;
    Chosen chosen;
    {
      const std::lock_guard lock(process::mutex());
      if (Session* granted = std::exchange(waiter.granted, nullptr)) return *granted;
      outdated.reserve(sessions_.size() + 1);
      while (Owned session = remove_outdated(now)) outdated.push_back(std::move(session));
      chosen = choose(wish, &waiter, now, outdated);
      if (chosen.may_connect && chosen.session == nullptr && spare) {
        sessions_.push_back(std::move(spare));
        chosen.session = sessions_.back().get();
        if (count_idle() >= kWarmOrigins) surplus = remove_oldest_idle();
      }
      if (chosen.may_connect && chosen.session != nullptr) chosen.session->connected_at = now;
      if (chosen.session != nullptr) return lease(*chosen.session, wish.route);
      if (!chosen.may_connect) waiter.enlist();
    }
    if (chosen.may_connect) {
      spare = std::make_unique<Session>();
      spare->route = wish.route;
      continue;
    }
    if (wish.deadline.passed(now)) throw timed_out(wish.ticker.peer(), wish.deadline);
    const auto left = std::min(wish.ticker.until_due(), wish.deadline.left(now));
    outdated.clear();  // it may fork during the sleep
    waiter.sleep(std::min(chosen.next_try, now + left));
    wish.ticker.call_if_due();
    now = std::chrono::steady_clock::now();
  }
}

void SessionPool::give_back(Session& session, TimePoint now) noexcept {
  Owned surplus;  // closed after the lock is released
  const std::lock_guard lock(process::mutex());
  if (!session.belongs_to_this_process()) return;
  if (hand_over(session)) {
    // The first waiter may have counted on waiters before it.
    if (now - burst_on(session.route).latest >= kPace) wake_first(session.route);
    return;
  }
  if (!session.has_connection()) {
    wake_first(session.route);
    if (session.open_errno() != 0) {
      surplus = remove(session);  // it holds descriptors itself
      return;
    }
  }
  session.leased = false;
  session.idle_since = now;
  if (count_idle() > kMostIdle) surplus = remove_oldest_idle();
  idle_reaper::need();
}

std::optional<SessionPool::TimePoint> SessionPool::close_outdated(TimePoint now) noexcept {
  for (;;) {
    Owned outdated;  // closed after the lock is released
    const std::lock_guard lock(process::mutex());
    outdated = remove_outdated(now);
    if (outdated) continue;
    const auto oldest = std::ranges::min_element(
        sessions_, {}, [](const Owned& session) { return std::tuple(session->leased, session->idle_since); });
    if (oldest == sessions_.end() || (*oldest)->leased) return std::nullopt;
    return (*oldest)->idle_since + kLongestIdle;
  }
}

std::size_t SessionPool::idle_count() const {
  const std::lock_guard lock(process::mutex());
  return count_idle();
}

std::size_t SessionPool::waiting_count() const {
  const std::lock_guard lock(process::mutex());
  return waiters_.size();
}

bool SessionPool::has_idle() const noexcept {
  return count_idle() > 0;
}

void SessionPool::forget_all() noexcept {
  for (Owned& session : sessions_) {
    session->abandon();
    static_cast<void>(session.release());
  }
  sessions_.clear();
  waiters_.clear();
}

SessionPool::Chosen SessionPool::choose(const Wish& wish, const Waiter* self, TimePoint now,
                                        std::vector<Owned>& outdated) {
  std::size_t ahead = 0;
  for (const Waiter* waiter : waiters_) {
    if (waiter == self) break;
    if (waiter->granted == nullptr && waiter->wants(wish.route)) ++ahead;
  }
  while (!wish.fresh && ahead == 0) {
    Session* session = find_connected(wish.route);
    if (session == nullptr) break;
    if (session->is_quiet()) return {.session = session};
    outdated.push_back(remove(*session));
  }
  const Burst burst = burst_on(wish.route);
  if (wish.patient && burst.connections > 0) return {.next_try = now + kPatientPace};
  const bool is_burst = burst.connections + ahead >= kAtOnce;
  const TimePoint next_try = burst.latest + kPace * static_cast<int>(ahead + 1);
  if (is_burst && now < next_try) return {.next_try = next_try};
  return {.session = find_unconnected(), .may_connect = true};
}

SessionPool::Burst SessionPool::burst_on(const Route& route) const noexcept {
  Burst burst;
  for (const Owned& session : sessions_) {
    if (!(session->leased || session->has_connection()) || !(session->route == route)) continue;
    ++burst.connections;
    burst.latest = std::max(burst.latest, session->connected_at);
  }
  return burst;
}

Session& SessionPool::lease(Session& session, const Route& route) {
  if (!(session.route == route)) session.route = route;
  session.leased = true;
  return session;
}

Session* SessionPool::find_connected(const Route& route) const noexcept {
  Session* latest = nullptr;
  for (const Owned& session : sessions_) {
    if (session->leased || !session->has_connection() || !(session->route == route)) continue;
    if (latest == nullptr || session->idle_since >= latest->idle_since) latest = session.get();
  }
  return latest;
}

Session* SessionPool::find_unconnected() const noexcept {
  const auto found = std::ranges::find_if(
      sessions_, [](const Owned& session) { return !session->leased && !session->has_connection(); });
  return found == sessions_.end() ? nullptr : found->get();
}

bool SessionPool::hand_over(Session& session) noexcept {
  if (!session.has_connection()) return false;
  const auto first = std::ranges::find_if(waiters_, [&](const Waiter* waiter) {
    return waiter->granted == nullptr && waiter->takes_used() && waiter->wants(session.route);
  });
  if (first == waiters_.end() || !session.is_quiet()) return false;
  (*first)->granted = &session;
  (*first)->wake();
  return true;
}

void SessionPool::wake_first(const Route& route) noexcept {
  const auto first = std::ranges::find_if(
      waiters_, [&](const Waiter* waiter) { return waiter->granted == nullptr && waiter->wants(route); });
  if (first != waiters_.end()) (*first)->wake();
}

SessionPool::Owned SessionPool::remove(const Session& session) noexcept {
  const auto found = std::ranges::find(sessions_, &session, &Owned::get);
  Owned removed = std::move(*found);
  sessions_.erase(found);
  return removed;
}

SessionPool::Owned SessionPool::remove_outdated(TimePoint now) noexcept {
  const auto found = std::ranges::find_if(sessions_, [&](const Owned& session) {
    return !session->leased && now - session->idle_since > kLongestIdle;
  });
  return found == sessions_.end() ? nullptr : remove(**found);
}

SessionPool::Owned SessionPool::remove_oldest_idle() noexcept {
  const auto oldest = std::ranges::min_element(
      sessions_, {}, [](const Owned& session) { return std::tuple(session->leased, session->idle_since); });
  return remove(**oldest);
}

std::size_t SessionPool::count_idle() const noexcept {
  return static_cast<std::size_t>(
      std::ranges::count_if(sessions_, [](const Owned& session) { return !session->leased; }));
}

}  // namespace tessaline::auth::http
