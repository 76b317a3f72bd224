#include "tessaline/auth/transport/http_library.hpp"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <variant>

namespace tessaline::auth {
namespace {

constexpr std::string_view kLibrary = "libtessaline_http.so";
constexpr const char* kSymbol = "tessaline_http_library";

constinit std::atomic<const http::Library*> loaded{nullptr};

// Held across a fork: a child must not inherit half-changed lists of the dynamic linker, and a library loaded
// meanwhile would miss the fork.
constinit std::mutex loading;

void before_fork() {
  loading.lock();
  if (const http::Library* const library = loaded.load()) library->before_fork();
}

void after_fork_in_parent() {
  if (const http::Library* const library = loaded.load()) library->after_fork_in_parent();
  loading.unlock();
}

void after_fork_in_child() {
  if (const http::Library* const library = loaded.load()) library->after_fork_in_child();
  loading.unlock();
}

std::string path_beside_this_module() {
  Dl_info self{};
  if (dladdr(kSymbol, &self) == 0) return std::string(kLibrary);
  const std::string_view module = self.dli_fname;
  return std::string(module.substr(0, module.rfind('/') + 1)).append(kLibrary);
}

http::TransportFailure load_failure() {
  const char* const why = dlerror();
  return {http::FailureKind::kOther,
          std::string("HTTP library cannot be loaded: ") + (why == nullptr ? "unknown" : why)};
}

/// Null if it cannot be loaded: see `dlerror`.
const http::Library* load() {
  void* const library = dlopen(path_beside_this_module().c_str(), RTLD_NOW | RTLD_LOCAL);
  return library == nullptr ? nullptr : static_cast<const http::Library*>(dlsym(library, kSymbol));
}

const http::Library* loaded_once() {
  if (const http::Library* const ready = loaded.load(std::memory_order_acquire)) return ready;
  const std::scoped_lock lock(loading);
  if (loaded.load(std::memory_order_relaxed) == nullptr) loaded.store(load(), std::memory_order_release);
  return loaded.load(std::memory_order_relaxed);
}

}  // namespace

void watch_forks_for_http() {
  static bool watching = false;
  if (watching) return;
  if (pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) != 0) throw std::bad_alloc();
  watching = true;
}

http::Result perform_request(const http::Request& request, const http::Tick& tick) {
  const http::Library* const library = loaded_once();
  return library == nullptr ? load_failure() : library->perform(request, tick);
}

std::variant<http::Versions, http::TransportFailure> http_versions() {
  const http::Library* const library = loaded_once();
  if (library == nullptr) return load_failure();
  return library->versions();
}

}  // namespace tessaline::auth
