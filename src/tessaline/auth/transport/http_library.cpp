#include "tessaline/auth/transport/http_library.hpp"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

namespace tessaline::auth {
namespace {

using Perform = http::Result (*)(const http::Request&, const http::Tick&);

constexpr std::string_view kLibrary = "libtessaline_http.so";
constexpr const char* kEntry = "tessaline_http_perform";

constinit std::atomic<Perform> loaded{nullptr};

// Held across a fork: a child must not inherit the dynamic linker's lists half changed.
constinit std::mutex loading;

void watch_forks_while_loading() {
  static constinit std::atomic<bool> watching{false};
  if (watching.exchange(true)) return;
  const int result =
      pthread_atfork([] { loading.lock(); }, [] { loading.unlock(); }, [] { loading.unlock(); });
  if (result == 0) return;
  watching = false;
  throw std::bad_alloc();
}

std::string path_beside_this_module() {
  Dl_info self{};
  if (dladdr(kEntry, &self) == 0) return std::string(kLibrary);
  const std::string_view module = self.dli_fname;
  return std::string(module.substr(0, module.rfind('/') + 1)).append(kLibrary);
}

http::TransportFailure load_failure() {
  const char* const why = dlerror();
  return {http::FailureKind::kOther,
          std::string("HTTP library cannot be loaded: ") + (why == nullptr ? "unknown" : why)};
}

/// Null where it cannot be had: `dlerror` knows why.
Perform load() {
  void* const library = dlopen(path_beside_this_module().c_str(), RTLD_NOW | RTLD_LOCAL);
  return library == nullptr ? nullptr : reinterpret_cast<Perform>(dlsym(library, kEntry));
}

Perform loaded_once() {
  if (const Perform ready = loaded.load(std::memory_order_acquire)) return ready;
  watch_forks_while_loading();
  const std::scoped_lock lock(loading);
  if (loaded.load(std::memory_order_relaxed) == nullptr) loaded.store(load(), std::memory_order_release);
  return loaded.load(std::memory_order_relaxed);
}

}  // namespace

http::Result perform_request(const http::Request& request, const http::Tick& tick) {
  const Perform perform = loaded_once();
  return perform == nullptr ? load_failure() : perform(request, tick);
}

}  // namespace tessaline::auth
