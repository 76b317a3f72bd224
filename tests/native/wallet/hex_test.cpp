#include "tessaline/auth/wallet/hex.hpp"

#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <string_view>

namespace tessaline::auth::wallet {
namespace {

void expect_read_as_ascii_digit_only(std::uint32_t unit) {
  constexpr std::string_view kLower = "0123456789abcdef";
  constexpr std::string_view kUpper = "0123456789ABCDEF";
  const auto place = [unit](std::string_view digits) {
    return unit > 0x7F ? std::string_view::npos : digits.find(static_cast<char>(unit));
  };
  const bool hexadecimal = place(kLower) != std::string_view::npos || place(kUpper) != std::string_view::npos;
  const std::size_t value = place(kLower) != std::string_view::npos ? place(kLower) : place(kUpper);
  const HexDigit digit = read_hex_digit(unit);
  ASSERT_EQ(digit.bad, hexadecimal ? 0U : 1U) << unit;
  ASSERT_EQ(digit.value, hexadecimal ? value : 0U) << unit;
  ASSERT_EQ(digit.upper, hexadecimal && place(kLower) == std::string_view::npos ? 1U : 0U) << unit;
}

TEST(HexTest, ReadsAsciiDigitsAndNothingElse) {
  for (std::uint32_t unit = 0; unit < 0x110000; ++unit) expect_read_as_ascii_digit_only(unit);
}

TEST(HexTest, RefusesUnitsBeyondUnicode) {
  for (const std::uint32_t low : {0x30U, 0x41U, 0x61U}) {
    expect_read_as_ascii_digit_only(0x80000000U | low);
    expect_read_as_ascii_digit_only(0xFFFFFF00U | low);
  }
  expect_read_as_ascii_digit_only(std::numeric_limits<std::uint32_t>::max());
}

TEST(HexTest, WritesEveryNibbleInBothCases) {
  for (std::uint64_t nibble = 0; nibble < 16; ++nibble) {
    EXPECT_EQ(write_hex_digit(nibble), "0123456789abcdef"[nibble]);
    EXPECT_EQ(write_hex_digit(nibble, nibble > 9 ? 1 : 0), "0123456789ABCDEF"[nibble]);
  }
}

TEST(HexTest, AppendsTwoLowercaseDigitsForEachByte) {
  constexpr std::array<std::uint8_t, 4> kBytes = {0x00, 0x9a, 0xaf, 0xff};
  std::string text = "0x";
  append_hex(text, kBytes);
  EXPECT_EQ(text, "0x009aafff");
}

}  // namespace
}  // namespace tessaline::auth::wallet
