#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tessaline::auth::wallet {

/// Returns `flag`, hiding its origin from the compiler, which would otherwise turn masks into branches.
inline std::uint64_t opaque(std::uint64_t flag) noexcept {
  asm("" : "+r"(flag));
  return flag;
}

/// A hexadecimal digit as read. All fields except `value` are 0 or 1.
struct HexDigit {
  std::uint64_t value;  ///< 0 to 15; 0 when `bad`
  std::uint64_t upper;  ///< 'A' to 'F'
  std::uint64_t bad;    ///< not a hexadecimal digit
};

/// Without a branch or a lookup that depends on `unit`. Only ASCII digits are hexadecimal.
inline HexDigit read_hex_digit(std::uint32_t unit) noexcept {
  const auto within = [](std::uint64_t value, std::uint64_t low, std::uint64_t high) {
    return opaque((((value - low) | (high - value)) >> 63) ^ 1);
  };
  const std::uint64_t folded = unit | 0x20U;
  const std::uint64_t decimal = within(unit, '0', '9');
  const std::uint64_t letter = within(folded, 'a', 'f');
  const std::uint64_t value = ((0 - decimal) & (unit - '0')) | ((0 - letter) & (folded - 'a' + 10));
  return {value, letter & ~(unit >> 5) & 1, (decimal | letter) ^ 1};
}

/// The digit for `nibble` (0 to 15); `upper` (0 or 1) makes a letter uppercase and is 0 for other digits.
/// Without a branch or a lookup that depends on either.
inline char write_hex_digit(std::uint64_t nibble, std::uint64_t upper = 0) noexcept {
  const std::uint64_t letter = opaque((9 - nibble) >> 63);
  return static_cast<char>('0' + nibble + ((0 - letter) & ('a' - '0' - 10)) - (upper << 5));
}

/// Appends two lowercase digits for each byte.
void append_hex(std::string& text, std::span<const std::uint8_t> bytes);

}  // namespace tessaline::auth::wallet
