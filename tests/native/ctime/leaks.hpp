#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/// The faults that the check must detect, as controls. Each leaks through a branch or an address. Compiled
/// with the flags of the code under test.
namespace tessaline::ctime::leaks {

/// Decodes by a table: the address depends on the digit.
void decode_by_table(std::span<const char> digits, std::span<std::uint8_t> bytes);

/// Decodes by branches on the kind of digit.
void decode_by_branches(std::span<const char> digits, std::span<std::uint8_t> bytes);

/// Encodes by a table: the address depends on the byte.
void encode_by_table(std::span<const std::uint8_t> bytes, std::span<char> digits);

/// Compares and stops at the first difference.
bool equal_until_different(std::span<const std::uint8_t> one, std::span<const std::uint8_t> other);

/// Compares with the C library's memcmp.
bool equal_by_memcmp(std::span<const std::uint8_t> one, std::span<const std::uint8_t> other);

/// Skips leading zeros, as when printing a number.
std::size_t significant_bytes(std::span<const std::uint8_t> bytes);

}  // namespace tessaline::ctime::leaks
