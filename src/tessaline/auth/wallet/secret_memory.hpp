#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tessaline::auth::wallet {

/// Overwrites `size` bytes with zeros in a way that the compiler does not remove.
void wipe(void* data, std::size_t size) noexcept;

/// Overwrites 16 KiB of this thread's stack below the caller's frame, and the registers, where the caller's
/// callees may have left copies.
void wipe_stack_below() noexcept;

/// 64 bytes from pages that hold nothing but secrets: kept out of swap and core dumps if the system allows
/// it, zeroed when acquired, wiped when released. The pages are never unmapped. Move-only. Any thread may
/// acquire and release; remains valid in both processes after a fork.
class SecretSlot {
 public:
  static constexpr std::size_t kSize = 64;

  /// Throws std::bad_alloc.
  static SecretSlot acquire();

  SecretSlot(SecretSlot&& other) noexcept;
  SecretSlot& operator=(SecretSlot&& other) noexcept;
  ~SecretSlot();

  std::span<std::uint8_t, kSize> bytes() const noexcept;

 private:
  explicit SecretSlot(std::uint8_t* data) noexcept : data_(data) {}
  void release() noexcept;

  std::uint8_t* data_;  ///< null after a move
};

}  // namespace tessaline::auth::wallet
