#include "tessaline/auth/http/process.hpp"

#include <curl/curl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <new>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/session_pool.hpp"

namespace tessaline::auth::http::process {
namespace {

// None of these has a destructor to run at exit.
constinit std::mutex process_mutex;
constinit std::atomic<bool> started = false;
constinit std::atomic<bool> exiting = false;
constinit std::atomic<unsigned long> fork_count = 0;
constinit unsigned inside_count = 0;
constinit pthread_t exit_thread{};

constexpr int kExitWaitMilliseconds = 100;

void before_fork() {
  process_mutex.lock();
}

void after_fork_in_parent() {
  process_mutex.unlock();
}

void after_fork_in_child() {
  // Every other thread is gone, and this one was not inside: it was running foreign code, perhaps in a tick.
  inside_count = 0;
  fork_count.fetch_add(1);
  SessionPool::shared().forget_all();
  process_mutex.unlock();
}

bool everybody_left() {
  const std::lock_guard lock(process_mutex);
  return inside_count == 0;
}

void wait_for_threads_at_exit() {
  {
    const std::lock_guard lock(process_mutex);
    exit_thread = pthread_self();
    exiting.store(true);
    SessionPool::shared().wake_leased();
  }
  constexpr timespec kMillisecond{0, 1'000'000};
  for (int waited = 0; waited < kExitWaitMilliseconds && !everybody_left(); ++waited) {
    nanosleep(&kMillisecond, nullptr);
  }
}

// Every step that succeeded is not repeated when a later one failed and a later request tries again.
void start_locked() {
  static bool fork_handled = false;
  static bool library_ready = false;
  static bool exit_handled = false;
  SessionPool::shared();
  if (!fork_handled) {
    if (pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) != 0) throw std::bad_alloc();
    fork_handled = true;
  }
  if (!library_ready) {
    const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
    if (code != CURLE_OK) throw TransportFailure(FailureKind::kOther, "HTTP library cannot be initialised");
    library_ready = true;
  }
  if (!exit_handled) {
    // Registered after OpenSSL's own clean-up, which the line above made, so that it runs before that.
    if (std::atexit(wait_for_threads_at_exit) != 0) throw std::bad_alloc();
    exit_handled = true;
  }
  started.store(true, std::memory_order_release);
}

[[noreturn]] void park() {
  for (;;) pause();
}

void enter() {
  {
    const std::lock_guard lock(process_mutex);
    if (!exiting) {
      ++inside_count;
      return;
    }
  }
  park();
}

void leave() {
  const std::lock_guard lock(process_mutex);
  --inside_count;
}

}  // namespace

std::mutex& mutex() noexcept {
  return process_mutex;
}

unsigned long generation() noexcept {
  return fork_count.load();
}

void park_if_exiting() {
  if (!exiting.load()) return;
  leave();
  park();
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

Outside::Outside() {
  leave();
}

Outside::~Outside() {
  enter();
}

}  // namespace tessaline::auth::http::process
