#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tessaline::auth::wallet {

/// Overwrites `size` bytes with zeros in a way that the compiler keeps.
void wipe(void* data, std::size_t size) noexcept;

/// Overwrites the part of this thread's stack below the caller's frame, where the calls that it made left
/// their working copies (16 KiB), and the registers in which they may have left the rest.
void wipe_stack_below() noexcept;

/// 64 bytes from pages that hold nothing but secrets: kept out of swap and core dumps where the system
/// allows, handed out zeroed, wiped when given back. The pages are never unmapped. Move-only. Thread-safe to
/// acquire and release from any thread; survives a fork in both processes.
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
