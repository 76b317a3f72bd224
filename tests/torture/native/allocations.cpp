#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "plan.hpp"

// Only the module uses the C++ library in the processes that preload this, so each `operator new` is the
// module's, including those made by the library for it. libcurl calls malloc through its own pointers: the
// return address is in libcurl.

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
}

namespace {

using torture::Kind;

constinit std::atomic<long> live_blocks{0};

bool fails_in_curl(const void* caller, const char* what) noexcept {
  return torture::armed() && torture::current_kind() == Kind::kLibraryAllocation &&
         torture::is_curl(caller) && torture::fails(Kind::kLibraryAllocation, what);
}

void* out_of_memory() noexcept {
  errno = ENOMEM;
  return nullptr;
}

void* new_block(std::size_t size) {
  if (torture::fails(Kind::kModuleAllocation, "operator new")) throw std::bad_alloc();
  void* block = __libc_malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  live_blocks.fetch_add(1, std::memory_order_relaxed);
  return block;
}

void delete_block(void* block) noexcept {
  if (block != nullptr) live_blocks.fetch_sub(1, std::memory_order_relaxed);
  std::free(block);
}

}  // namespace

namespace torture {

long live_module_blocks() noexcept {
  return live_blocks.load();
}

}  // namespace torture

void* operator new(std::size_t size) {
  return new_block(size);
}
void* operator new[](std::size_t size) {
  return new_block(size);
}
void operator delete(void* block) noexcept {
  delete_block(block);
}
void operator delete[](void* block) noexcept {
  delete_block(block);
}
void operator delete(void* block, std::size_t) noexcept {
  delete_block(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  delete_block(block);
}

extern "C" {

void* malloc(std::size_t size) {
  if (fails_in_curl(__builtin_return_address(0), "malloc")) return out_of_memory();
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
  if (fails_in_curl(__builtin_return_address(0), "calloc")) return out_of_memory();
  return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) {
  if (fails_in_curl(__builtin_return_address(0), "realloc")) return out_of_memory();
  return __libc_realloc(block, size);
}

char* strdup(const char* text) {
  if (fails_in_curl(__builtin_return_address(0), "strdup")) return static_cast<char*>(out_of_memory());
  const std::size_t size = std::strlen(text) + 1;
  void* copy = __libc_malloc(size);
  return copy == nullptr ? nullptr : static_cast<char*>(std::memcpy(copy, text, size));
}

}  // extern "C"
