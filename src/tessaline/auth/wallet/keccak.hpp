#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tessaline::auth::wallet {

using Digest = std::array<std::uint8_t, 32>;

/// Keccak-256 with the padding of the original submission (0x01), not that of SHA3-256 (0x06).
/// Source: The Keccak reference, version 3.0 (Bertoni, Daemen, Peeters, Van Assche), rate 1088, capacity 512.
class Keccak256 {
 public:
  void update(std::span<const std::uint8_t> data) noexcept;

  /// The digest of all bytes so far. The object cannot be used afterwards.
  Digest finish() noexcept;

 private:
  static constexpr std::size_t kRate = 136;  ///< bytes absorbed per permutation

  std::array<std::uint64_t, 25> lanes_{};
  std::size_t offset_ = 0;
};

Digest keccak256(std::span<const std::uint8_t> data) noexcept;

}  // namespace tessaline::auth::wallet
