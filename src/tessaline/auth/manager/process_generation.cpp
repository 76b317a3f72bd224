#include "tessaline/auth/manager/process_generation.hpp"

#include <pthread.h>

#include <atomic>
#include <new>

namespace tessaline::auth {
namespace {

constinit std::atomic<unsigned long> forks{0};

void count_fork() {
  forks.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

unsigned long process_generation() noexcept {
  return forks.load(std::memory_order_relaxed);
}

void watch_forks() {
  static bool watching = false;
  if (watching) return;
  if (pthread_atfork(nullptr, nullptr, count_fork) != 0) throw std::bad_alloc();
  watching = true;
}

}  // namespace tessaline::auth
