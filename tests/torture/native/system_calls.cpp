#include <pthread.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstdint>

#include "next.hpp"
#include "plan.hpp"

// Replace the system functions that the module calls: random bytes, memory for secrets, sockets, threads,
// handlers for fork and exit.

namespace {

constexpr std::array kRandomErrors{ENOSYS, EIO, EFAULT};
constexpr std::array kSocketErrors{EMFILE, ENOBUFS, EACCES, EAFNOSUPPORT};
constexpr std::array kReceiveErrors{ECONNRESET, EBADF, EINTR};

template <std::size_t kSize>
int failed(const std::array<int, kSize>& errors, int way) {
  errno = errors[static_cast<std::size_t>(way)];
  return -1;
}

constexpr std::size_t kPageSize = 4096;
constexpr std::size_t kSlotSize = 64;
std::array<void*, 64> secret_pages;
std::size_t secret_page_count = 0;

}  // namespace

namespace torture {

SecretPages look_at_secret_pages() noexcept {
  SecretPages seen;
  for (std::size_t index = 0; index < secret_page_count; ++index) {
    const auto* page = static_cast<const std::uint8_t*>(secret_pages[index]);
    ++seen.pages;
    seen.slots_taken += 63 - std::popcount(*reinterpret_cast<const std::uint64_t*>(page));
    for (std::size_t offset = kSlotSize; offset < kPageSize; ++offset)
      seen.bytes_not_zero += page[offset] != 0;
  }
  return seen;
}

}  // namespace torture

extern "C" {

ssize_t getrandom(void* bytes, size_t size, unsigned flags) {
  TORTURE_NEXT(getrandom);
  // Besides errors: nothing, one byte, an interruption.
  constexpr int kErrors = static_cast<int>(kRandomErrors.size());
  const int way = TORTURE_WAY(getrandom, kErrors + 3);
  if (way < 0) return real(bytes, size, flags);
  if (way < kErrors) return failed(kRandomErrors, way);
  if (way == kErrors) return 0;
  if (way == kErrors + 1) return real(bytes, 1, flags);
  errno = EINTR;
  return -1;
}

void* mmap(void* address, size_t size, int protection, int flags, int descriptor, off_t offset) noexcept {
  TORTURE_NEXT(mmap);
  const void* caller = __builtin_return_address(0);
  if (torture::way_to_fail("mmap", 1, caller) == 0) {
    errno = ENOMEM;
    return MAP_FAILED;
  }
  void* mapped = real(address, size, protection, flags, descriptor, offset);
  const bool secret = size == kPageSize && mapped != MAP_FAILED && torture::is_module(caller);
  if (secret && secret_page_count < secret_pages.size()) secret_pages[secret_page_count++] = mapped;
  return mapped;
}

int mlock(const void* address, size_t size) noexcept {
  TORTURE_NEXT(mlock);
  if (TORTURE_WAY(mlock, 1) < 0) return real(address, size);
  errno = EPERM;
  return -1;
}

int madvise(void* address, size_t size, int advice) noexcept {
  TORTURE_NEXT(madvise);
  if (TORTURE_WAY(madvise, 1) < 0) return real(address, size, advice);
  errno = EINVAL;
  return -1;
}

int socket(int domain, int type, int protocol) noexcept {
  TORTURE_NEXT(socket);
  const int way = TORTURE_WAY(socket, static_cast<int>(kSocketErrors.size()));
  return way < 0 ? real(domain, type, protocol) : failed(kSocketErrors, way);
}

ssize_t recv(int descriptor, void* bytes, size_t size, int flags) {
  TORTURE_NEXT(recv);
  constexpr int kErrors = static_cast<int>(kReceiveErrors.size());
  const int way = TORTURE_WAY(recv, kErrors + 1);
  if (way < 0) return real(descriptor, bytes, size, flags);
  return way < kErrors ? failed(kReceiveErrors, way) : 0;
}

int close(int descriptor) {
  TORTURE_NEXT(close);
  // Linux has closed it whatever it returns.
  const int way = TORTURE_WAY(close, 1);
  const int status = real(descriptor);
  if (way < 0) return status;
  errno = EIO;
  return -1;
}

int __register_atfork(void (*prepare)(), void (*parent)(), void (*child)(), void* library);
int __register_atfork(void (*prepare)(), void (*parent)(), void (*child)(), void* library) {
  TORTURE_NEXT(__register_atfork);
  return TORTURE_WAY(__register_atfork, 1) < 0 ? real(prepare, parent, child, library) : ENOMEM;
}

int __cxa_atexit(void (*function)(void*), void* argument, void* library) noexcept;
int __cxa_atexit(void (*function)(void*), void* argument, void* library) noexcept {
  TORTURE_NEXT(__cxa_atexit);
  return TORTURE_WAY(__cxa_atexit, 1) < 0 ? real(function, argument, library) : -1;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
  TORTURE_NEXT(pthread_create);
  if (torture::fails(torture::Kind::kThread, "pthread_create")) return EAGAIN;
  return real(thread, attributes, body, argument);
}

}  // extern "C"
