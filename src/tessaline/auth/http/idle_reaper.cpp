#include "tessaline/auth/http/idle_reaper.hpp"

#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <thread>

#include "tessaline/auth/http/limits.hpp"
#include "tessaline/auth/http/process.hpp"
#include "tessaline/auth/http/session_pool.hpp"

namespace tessaline::auth::http::idle_reaper {
namespace {

constinit bool running = false;  // under the process mutex

/// When the next connection is to be closed; empty if this thread is no longer needed.
std::optional<SessionPool::TimePoint> close_outdated() {
  const process::Inside inside;  // closing a connection sends TLS messages
  return SessionPool::shared().close_outdated(std::chrono::steady_clock::now());
}

bool may_end() {
  const std::lock_guard lock(process::mutex());
  running = SessionPool::shared().has_idle();
  return !running;
}

// Sleeps first: nothing is outdated sooner, and a busy program would otherwise restart it for every request.
void* reap(void*) {
  auto next = std::chrono::steady_clock::now() + kLongestIdle;
  for (;;) {
    std::this_thread::sleep_until(next + std::chrono::milliseconds(1));
    if (const auto later = close_outdated()) {
      next = *later;
    } else if (may_end()) {
      return nullptr;
    }
  }
}

}  // namespace

void need() noexcept {
  if (running) return;
  pthread_attr_t detached;
  if (pthread_attr_init(&detached) != 0) return;
  pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
  // Signals are for the program's threads.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread{};
  running = pthread_create(&thread, &detached, reap, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&detached);
  if (running) pthread_setname_np(thread, "tessaline-idle");
}

void forget() noexcept {
  running = false;
}

}  // namespace tessaline::auth::http::idle_reaper
