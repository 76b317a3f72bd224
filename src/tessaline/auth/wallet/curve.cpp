#include "tessaline/auth/wallet/curve.hpp"

#include <secp256k1_preallocated.h>
#include <sys/random.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "tessaline/auth/wallet/secret_memory.hpp"

namespace tessaline::auth::wallet {
namespace {

constinit std::atomic<const secp256k1_context*> shared_context{nullptr};

// The texts are string literals of libsecp256k1.
constinit thread_local const char* reported_fault = nullptr;

void record_fault(const char* text, void* /*data*/) {
  reported_fault = text;
}

void fill_from_system(std::span<std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = getrandom(bytes.data(), bytes.size(), 0);
    if (count > 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      throw CurveError("the system's random source failed");
    }
  }
}

void randomize(secp256k1_context* context) {
  std::array<std::uint8_t, 32> seed{};
  fill_from_system(seed);
  const int result = secp256k1_context_randomize(context, seed.data());
  wipe(seed.data(), seed.size());
  wipe_stack_below();
  require_curve_success(result, "context randomization");
}

// In our own memory, because libsecp256k1 aborts the process if its own allocation fails.
secp256k1_context* make_context(void* memory) {
  secp256k1_context* context = secp256k1_context_preallocated_create(memory, SECP256K1_CONTEXT_NONE);
  if (context == nullptr) throw CurveError("context creation failed");
  secp256k1_context_set_illegal_callback(context, record_fault, nullptr);
  secp256k1_context_set_error_callback(context, record_fault, nullptr);
  randomize(context);
  return context;
}

}  // namespace

// No lock and no once-flag: after a fork during another thread's call, the child would wait for ever. Threads
// that come first together each make a context, and the first to publish its own wins.
const secp256k1_context* curve_context() {
  const secp256k1_context* published = shared_context.load(std::memory_order_acquire);
  if (published != nullptr) return published;

  auto memory = std::make_unique<std::byte[]>(secp256k1_context_preallocated_size(SECP256K1_CONTEXT_NONE));
  secp256k1_context* made = make_context(memory.get());
  if (shared_context.compare_exchange_strong(published, made, std::memory_order_acq_rel)) {
    static_cast<void>(memory.release());
    return made;
  }
  secp256k1_context_preallocated_destroy(made);
  return published;
}

void require_curve_success(int result, const char* operation) {
  const char* fault = std::exchange(reported_fault, nullptr);
  if (fault != nullptr) throw CurveError(std::string(operation) + ": " + fault);
  if (result != 1) throw CurveError(std::string(operation) + " failed");
}

}  // namespace tessaline::auth::wallet
