#include "tessaline/auth/wallet/secret_memory.hpp"

#include <pthread.h>
#include <string.h>
#include <sys/mman.h>

#include <atomic>
#include <bit>
#include <new>
#include <utility>

namespace tessaline::auth::wallet {
namespace {

constexpr std::size_t kPageSize = 4096;
constexpr std::size_t kStackReach = std::size_t{16} * 1024;

/// At the start of its page, so that a slot's page is found from the slot's address.
struct SecretPage {
  std::atomic<std::uint64_t> free_slots;  ///< bit i is for slot i
  SecretPage* next;

  std::uint8_t* slot(int index) noexcept {
    return reinterpret_cast<std::uint8_t*>(this) + SecretSlot::kSize * static_cast<std::size_t>(index);
  }
};

static_assert(sizeof(SecretPage) <= SecretSlot::kSize);
static_assert(kPageSize / SecretSlot::kSize == 64, "one bit for each slot of a page");
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

// Atomics instead of a mutex: a fork during another thread's change leaves nothing locked in the child. Pages
// are only ever added.
constinit std::atomic<SecretPage*> pages{nullptr};
constinit std::atomic<bool> relocks_after_fork{false};

// A child inherits the pages, but not their locks against swap.
void lock_pages_again() {
  for (SecretPage* page = pages.load(std::memory_order_acquire); page != nullptr; page = page->next) {
    static_cast<void>(mlock(page, kPageSize));
  }
}

SecretPage* map_page(std::uint64_t free_slots) {
  void* memory = mmap(nullptr, kPageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  static_cast<void>(mlock(memory, kPageSize));
  static_cast<void>(madvise(memory, kPageSize, MADV_DONTDUMP));
  if (!relocks_after_fork.exchange(true)) {
    static_cast<void>(pthread_atfork(nullptr, nullptr, lock_pages_again));
  }
  return new (memory) SecretPage{free_slots, nullptr};
}

void publish(SecretPage* page) noexcept {
  page->next = pages.load(std::memory_order_relaxed);
  while (!pages.compare_exchange_weak(page->next, page, std::memory_order_release)) {
  }
}

std::uint8_t* take_slot(SecretPage* page) noexcept {
  std::uint64_t free_slots = page->free_slots.load(std::memory_order_relaxed);
  while (free_slots != 0) {
    const std::uint64_t without_lowest = free_slots & (free_slots - 1);
    if (page->free_slots.compare_exchange_weak(free_slots, without_lowest, std::memory_order_acquire,
                                               std::memory_order_relaxed)) {
      return page->slot(std::countr_zero(free_slots));
    }
  }
  return nullptr;
}

void give_back(std::uint8_t* slot) noexcept {
  const auto offset = reinterpret_cast<std::uintptr_t>(slot) % kPageSize;
  auto* page = std::launder(reinterpret_cast<SecretPage*>(slot - offset));
  page->free_slots.fetch_or(std::uint64_t{1} << (offset / SecretSlot::kSize), std::memory_order_release);
}

}  // namespace

void wipe(void* data, std::size_t size) noexcept {
  // explicit_bzero must not be given a null pointer.
  if (size != 0) explicit_bzero(data, size);
}

// Calls nothing: at a function's first call the dynamic linker saves the vector registers, with what they
// hold, on the stack below the array. The address sanitizer would move the array off the stack.
__attribute__((noinline, no_sanitize("address"), zero_call_used_regs("all"))) void
wipe_stack_below() noexcept {
  volatile std::uint64_t below[kStackReach / sizeof(std::uint64_t)];
  for (volatile std::uint64_t& word : below) word = 0;
}

SecretSlot SecretSlot::acquire() {
  for (SecretPage* page = pages.load(std::memory_order_acquire); page != nullptr; page = page->next) {
    if (std::uint8_t* slot = take_slot(page)) return SecretSlot(slot);
  }
  constexpr std::uint64_t kHeaderAndFirst = 0b11;
  SecretPage* page = map_page(~kHeaderAndFirst);
  publish(page);
  return SecretSlot(page->slot(1));
}

SecretSlot::SecretSlot(SecretSlot&& other) noexcept : data_(std::exchange(other.data_, nullptr)) {}

SecretSlot& SecretSlot::operator=(SecretSlot&& other) noexcept {
  if (this != &other) {
    release();
    data_ = std::exchange(other.data_, nullptr);
  }
  return *this;
}

SecretSlot::~SecretSlot() {
  release();
}

std::span<std::uint8_t, SecretSlot::kSize> SecretSlot::bytes() const noexcept {
  return std::span<std::uint8_t, kSize>(data_, kSize);
}

void SecretSlot::release() noexcept {
  if (data_ == nullptr) return;
  wipe(data_, kSize);
  give_back(std::exchange(data_, nullptr));
}

}  // namespace tessaline::auth::wallet
