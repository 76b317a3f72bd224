#include "tessaline/auth/http/session_pool.hpp"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <tuple>

#include "tessaline/auth/http/process.hpp"

namespace tessaline::auth::http {

SessionPool& SessionPool::shared() {
  static SessionPool& pool = *new SessionPool;
  return pool;
}

Session& SessionPool::take(const std::string& origin, TimePoint now) {
  std::string origin_copy = origin;
  std::vector<Owned> outdated;  // both closed after the lock is released
  Owned surplus;
  {
    const std::lock_guard lock(process::mutex());
    outdated = remove_outdated(now);
    outdated.reserve(outdated.size() + sessions_.size());
    while (Session* session = choose_idle(origin)) {
      if (session->is_quiet()) {
        session->leased = true;
        session->origin.swap(origin_copy);
        return *session;
      }
      outdated.push_back(remove(*session));
    }
    if (count_idle() >= kWarmOrigins) surplus = remove_oldest_idle();
  }
  Owned created = std::make_unique<Session>();
  created->origin.swap(origin_copy);
  const std::lock_guard lock(process::mutex());
  sessions_.push_back(std::move(created));
  return *sessions_.back();
}

void SessionPool::give_back(Session& session, TimePoint now) noexcept {
  Owned surplus;  // closed after the lock is released
  const std::lock_guard lock(process::mutex());
  if (!session.belongs_to_this_process()) return;
  session.leased = false;
  session.idle_since = now;
  if (count_idle() > kMaxIdle) surplus = remove_oldest_idle();
}

std::size_t SessionPool::idle_count() const {
  const std::lock_guard lock(process::mutex());
  return count_idle();
}

void SessionPool::forget_all() noexcept {
  for (Owned& session : sessions_) {
    session->abandon();
    static_cast<void>(session.release());
  }
  sessions_.clear();
}

SessionPool::Owned SessionPool::remove(const Session& session) noexcept {
  const auto found = std::find_if(sessions_.begin(), sessions_.end(),
                                  [&](const Owned& owned) { return owned.get() == &session; });
  Owned removed = std::move(*found);
  sessions_.erase(found);
  return removed;
}

std::vector<SessionPool::Owned> SessionPool::remove_outdated(TimePoint now) {
  const auto is_outdated = [&](const Owned& session) {
    return !session->leased && now - session->idle_since > kMaxIdleTime;
  };
  std::vector<Owned> outdated;
  outdated.reserve(static_cast<std::size_t>(std::count_if(sessions_.begin(), sessions_.end(), is_outdated)));
  for (Owned& session : sessions_) {
    if (is_outdated(session)) outdated.push_back(std::move(session));
  }
  std::erase(sessions_, nullptr);
  return outdated;
}

SessionPool::Owned SessionPool::remove_oldest_idle() noexcept {
  const auto oldest =
      std::min_element(sessions_.begin(), sessions_.end(), [](const Owned& left, const Owned& right) {
        return std::tuple(left->leased, left->idle_since) < std::tuple(right->leased, right->idle_since);
      });
  Owned removed = std::move(*oldest);
  sessions_.erase(oldest);
  return removed;
}

Session* SessionPool::choose_idle(const std::string& origin) const noexcept {
  const auto rank = [&](const Session& session) {
    return std::tuple(session.origin == origin && session.has_connection(), session.idle_since);
  };
  Session* best = nullptr;
  for (const Owned& session : sessions_) {
    if (session->leased || (session->origin != origin && session->has_connection())) continue;
    if (best == nullptr || rank(*session) >= rank(*best)) best = session.get();
  }
  return best;
}

std::size_t SessionPool::count_idle() const noexcept {
  return static_cast<std::size_t>(std::count_if(sessions_.begin(), sessions_.end(),
                                                [](const Owned& session) { return !session->leased; }));
}

SessionLease::SessionLease(const std::string& origin)
    : session_(SessionPool::shared().take(origin, std::chrono::steady_clock::now())) {}

SessionLease::~SessionLease() {
  SessionPool::shared().give_back(session_, std::chrono::steady_clock::now());
}

}  // namespace tessaline::auth::http
