#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/// The mistakes that the check is there to see, written out so that it can be seen seeing them. Each leaks
/// through a branch or an address. Compiled with the flags of the code under test.
namespace tessaline::ctime::leaks {

/// Decodes by a table: the address read depends on the digit.
void decode_by_table(std::span<const char> digits, std::span<std::uint8_t> bytes);

/// Decodes by asking what kind of digit it is.
void decode_by_branches(std::span<const char> digits, std::span<std::uint8_t> bytes);

/// Encodes by a table: the address read depends on the byte.
void encode_by_table(std::span<const std::uint8_t> bytes, std::span<char> digits);

/// Compares and stops at the first difference.
bool equal_until_different(std::span<const std::uint8_t> one, std::span<const std::uint8_t> other);

/// Compares with the C library's memcmp.
bool equal_by_memcmp(std::span<const std::uint8_t> one, std::span<const std::uint8_t> other);

/// Skips leading zeros, as a number is printed.
std::size_t significant_bytes(std::span<const std::uint8_t> bytes);

}  // namespace tessaline::ctime::leaks
