#include "tessaline/auth/http/process.hpp"

#include <curl/curl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <new>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/idle_reaper.hpp"
#include "tessaline/auth/http/session_pool.hpp"
#include "tessaline/auth/http/trust.hpp"

namespace tessaline::auth::http::process {
namespace {

// None of these has a destructor that runs at exit.
constinit std::mutex process_mutex;
constinit std::atomic<bool> started = false;
constinit std::atomic<bool> exiting = false;
constinit std::atomic<int> inside_count = 0;
constinit std::atomic<unsigned long> fork_count = 0;
constinit pthread_t exit_thread{};

// Threads inside libcurl share it; a fork takes it exclusively.
constinit pthread_rwlock_t fork_gate = PTHREAD_RWLOCK_INITIALIZER;
constinit bool gate_closed = false;

// Every thread takes it to enter, and a fork keeps it: readers pass a waiting writer of the lock above, so
// busy threads would never let the fork through.
constinit std::mutex fork_turnstile;

// The thread of the current fork, which holds the process mutex.
constinit std::atomic<pthread_t> fork_thread{};
constinit int fork_depth = 0;

constexpr timespec kMillisecond{0, 1'000'000};
constexpr int kExitWaitMilliseconds = 100;
constexpr int kForkWaitSeconds = 1;

bool is_last_of_fork() {
  if (--fork_depth > 0) return false;
  fork_thread.store(pthread_t{});
  return true;
}

void wait_for_threads_at_exit() {
  exit_thread = pthread_self();
  exiting.store(true);
  for (int waited = 0; waited < kExitWaitMilliseconds && inside_count.load() > 0; ++waited) {
    nanosleep(&kMillisecond, nullptr);
  }
}

// Steps that have succeeded are not repeated when a later request tries again.
void start_locked() {
  static bool library_ready = false;
  static bool exit_handled = false;
  SessionPool::shared();
  Trust::prepare();
  if (!library_ready) {
    const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
    if (code != CURLE_OK) throw TransportFailure(FailureKind::kOther, "HTTP library cannot be initialised");
    library_ready = true;
  }
  if (!exit_handled) {
    // Registered after OpenSSL's own exit handler (registered by curl_global_init at the latest), so it runs
    // before that.
    if (std::atexit(wait_for_threads_at_exit) != 0) throw std::bad_alloc();
    exit_handled = true;
  }
  started.store(true, std::memory_order_release);
}

[[noreturn]] void park() {
  for (;;) pause();
}

void leave() noexcept {
  inside_count.fetch_sub(1);
  pthread_rwlock_unlock(&fork_gate);
}

void enter() noexcept {
  {
    const std::lock_guard turn(fork_turnstile);
    pthread_rwlock_rdlock(&fork_gate);
  }
  inside_count.fetch_add(1);
  // After the increment: either this thread sees the exit, or the exit sees this thread.
  if (!exiting.load()) return;
  leave();
  park();
}

}  // namespace

std::mutex& mutex() noexcept {
  return process_mutex;
}

void before_fork() noexcept {
  if (fork_thread.load() == pthread_self()) {
    ++fork_depth;
    return;
  }
  fork_turnstile.lock();
  timespec end{};
  clock_gettime(CLOCK_REALTIME, &end);
  end.tv_sec += kForkWaitSeconds;
  const bool closed = pthread_rwlock_timedwrlock(&fork_gate, &end) == 0;
  process_mutex.lock();
  gate_closed = closed;
  fork_thread.store(pthread_self());
  fork_depth = 1;
}

void after_fork_in_parent() noexcept {
  if (!is_last_of_fork()) return;
  const bool closed = gate_closed;
  process_mutex.unlock();
  if (closed) pthread_rwlock_unlock(&fork_gate);
  fork_turnstile.unlock();
}

void after_fork_in_child() noexcept {
  if (!is_last_of_fork()) return;
  if (gate_closed) pthread_rwlock_unlock(&fork_gate);
  // Re-created even so: it may count threads that waited for it in the parent.
  fork_gate = PTHREAD_RWLOCK_INITIALIZER;
  inside_count.store(0);
  exiting.store(false);  // the thread that exits is in the parent
  fork_count.fetch_add(1);
  SessionPool::shared().forget_all();
  Trust::forget_all();
  idle_reaper::forget();
  process_mutex.unlock();
  fork_turnstile.unlock();
}

unsigned long generation() noexcept {
  return fork_count.load();
}

Inside::Inside() {
  if (!started.load(std::memory_order_acquire)) {
    const std::lock_guard lock(process_mutex);
    start_locked();
  }
  if (exiting.load() && pthread_equal(exit_thread, pthread_self()) != 0) {
    throw TransportFailure(FailureKind::kOther, "process is exiting");
  }
  enter();
}

Inside::~Inside() {
  leave();
}

Outside::Outside() noexcept {
  leave();
}

Outside::~Outside() {
  enter();
}

}  // namespace tessaline::auth::http::process
