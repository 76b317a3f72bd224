#include "tessaline/auth/python/stack.hpp"

#include <Python.h>
#include <pthread.h>
#ifndef __GLIBC__
#include <sys/resource.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cstdint>
#include <limits>

#include "tessaline/auth/python/error.hpp"

namespace tessaline::auth::python {
namespace {

/// Enough for a TLS handshake, a log handler and the unwinding of an exception together.
constexpr std::uintptr_t kMostMargin = std::uintptr_t{256} * 1024;

/// The main thread's stack may have no limit.
constexpr std::uintptr_t kMostStack = std::uintptr_t{64} * 1024 * 1024;

/// How much deeper than at its first entry a thread must go before its bounds are queried: a refresh thread
/// that only sleeps never does.
constexpr std::uintptr_t kShallow = std::uintptr_t{8} * 1024;

/// The end of a stack, in which no entry may begin.
struct Margin {
  std::uintptr_t low;
  std::uintptr_t size;
  bool learned = true;

  // For an address below `low` the unsigned difference is huge.
  bool holds(std::uintptr_t address) const noexcept { return address - low < size; }
};

constexpr Margin kUnseen{0, std::numeric_limits<std::uintptr_t>::max(), false};
constexpr Margin kUnknown{0, 0};

/// Of the OS thread's own stack. Green threads use it too, or their own stacks, which are not checked.
#ifdef __GLIBC__
// In the thread's static TLS block: a dynamic one would be allocated at the first entry.
[[gnu::tls_model("initial-exec")]]
#endif
constinit thread_local Margin margin = kUnseen;

Margin margin_of(std::uintptr_t low, std::uintptr_t size) noexcept {
#ifndef __GLIBC__
  // For the main thread, musl reports what is mapped so far of a growing stack.
  rlimit limit{};
  if (gettid() == getpid()) {
    if (getrlimit(RLIMIT_STACK, &limit) != 0) return kUnknown;
    const std::uintptr_t most = std::min<std::uintptr_t>(limit.rlim_cur, kMostStack);
    low = low + size - most;
    size = most;
  }
#endif
  if (size > kMostStack) {
    low += size - kMostStack;
    size = kMostStack;
  }
  return {low, std::min(kMostMargin, size / 4)};
}

Margin learn() noexcept {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return kUnknown;
  void* low = nullptr;
  std::size_t size = 0;
  const bool known = pthread_attr_getstack(&attributes, &low, &size) == 0;
  pthread_attr_destroy(&attributes);
  return known ? margin_of(reinterpret_cast<std::uintptr_t>(low), size) : kUnknown;
}

[[noreturn]] void raise_recursion() {
  raise(PyExc_RecursionError, "maximum recursion depth exceeded in native code");
}

}  // namespace

void require_stack() {
  const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  if (!margin.holds(here)) return;
  if (margin.size == kUnseen.size) {
    margin = {0, here - kShallow, false};
    return;
  }
  if (!margin.learned) {
    margin = learn();
    if (!margin.holds(here)) return;
  }
  raise_recursion();
}

}  // namespace tessaline::auth::python
