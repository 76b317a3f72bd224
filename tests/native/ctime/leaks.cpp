#include "leaks.hpp"

#include <array>
#include <cstring>

namespace tessaline::ctime::leaks {
namespace {

constexpr std::array<std::uint8_t, 256> kValues = [] {
  std::array<std::uint8_t, 256> values{};
  for (unsigned i = 0; i < 10; ++i) values['0' + i] = static_cast<std::uint8_t>(i);
  for (unsigned i = 0; i < 6; ++i) {
    values['a' + i] = static_cast<std::uint8_t>(10 + i);
    values['A' + i] = static_cast<std::uint8_t>(10 + i);
  }
  return values;
}();

// Unknown to the compiler, which could otherwise turn the branches on it into arithmetic.
volatile std::size_t branches_taken = 0;

std::uint8_t value_by_branches(char digit) {
  if (digit >= '0' && digit <= '9') {
    branches_taken = branches_taken + 1;
    return static_cast<std::uint8_t>(digit - '0');
  }
  branches_taken = branches_taken + 2;
  return static_cast<std::uint8_t>((digit | 0x20) - 'a' + 10);
}

}  // namespace

void decode_by_table(std::span<const char> digits, std::span<std::uint8_t> bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::uint8_t high = kValues[static_cast<std::uint8_t>(digits[2 * i])];
    const std::uint8_t low = kValues[static_cast<std::uint8_t>(digits[2 * i + 1])];
    bytes[i] = static_cast<std::uint8_t>(high << 4U | low);
  }
}

void decode_by_branches(std::span<const char> digits, std::span<std::uint8_t> bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::uint8_t high = value_by_branches(digits[2 * i]);
    bytes[i] = static_cast<std::uint8_t>(high << 4U | value_by_branches(digits[2 * i + 1]));
  }
}

void encode_by_table(std::span<const std::uint8_t> bytes, std::span<char> digits) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    digits[2 * i] = kDigits[bytes[i] >> 4U];
    digits[2 * i + 1] = kDigits[bytes[i] & 0xFU];
  }
}

bool equal_until_different(std::span<const std::uint8_t> one, std::span<const std::uint8_t> other) {
  for (std::size_t i = 0; i < one.size(); ++i) {
    if (one[i] != other[i]) return false;
  }
  return true;
}

bool equal_by_memcmp(std::span<const std::uint8_t> one, std::span<const std::uint8_t> other) {
  return std::memcmp(one.data(), other.data(), one.size()) == 0;
}

std::size_t significant_bytes(std::span<const std::uint8_t> bytes) {
  std::size_t leading = 0;
  while (leading < bytes.size() && bytes[leading] == 0) ++leading;
  return bytes.size() - leading;
}

}  // namespace tessaline::ctime::leaks
