#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tessaline::auth::wallet::testing {

/// Lowercase digits, written independently of the code under test.
inline std::string hex_text(std::span<const std::uint8_t> bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 0xFU];
  }
  return text;
}

}  // namespace tessaline::auth::wallet::testing
