// Key texts of every width, compared with a parser of the same rules that is not constant-time.

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "check.hpp"
#include "input.hpp"
#include "tessaline/auth/wallet/wallet_key.hpp"

namespace tessaline::fuzz {
namespace {

using auth::wallet::KeyFault;
using auth::wallet::KeyRefusal;
using auth::wallet::KeyText;
using auth::wallet::WalletKey;

constexpr std::string_view kOrder = "fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364141";
constexpr std::size_t kDigits = 64;

/// Code units in the interpreter's representation.
struct Units {
  std::vector<std::uint32_t> values;
  std::vector<std::uint8_t> stored;
  std::size_t width = 1;

  KeyText text() const { return {stored.data(), static_cast<int>(width), values.size()}; }
};

Units read_units(Input input) {
  Units units;
  const std::uint8_t choice = input.byte();
  units.width = std::array<std::size_t, 4>{1, 2, 4, 1}.at(choice % 4U);
  const bool raw = (choice & 4U) != 0;  // else a byte for each unit
  const std::string_view bytes = input.rest();
  const std::size_t step = raw ? units.width : 1;
  for (std::size_t i = 0; i + step <= bytes.size(); i += step) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + i, step);
    units.values.push_back(value);
  }
  units.stored.resize(units.values.size() * units.width);
  for (std::size_t i = 0; i < units.values.size(); ++i) {
    std::memcpy(units.stored.data() + i * units.width, &units.values[i], units.width);
  }
  return units;
}

bool is_hex(std::uint32_t unit) {
  return (unit >= '0' && unit <= '9') || (unit >= 'a' && unit <= 'f') || (unit >= 'A' && unit <= 'F');
}

struct Reading {
  std::optional<KeyRefusal> refusal;
  std::string digits;
};

Reading refused(KeyRefusal refusal) {
  return {refusal, {}};
}

std::string lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

Reading expected(std::vector<std::uint32_t> units) {
  if (units.empty()) return refused({.fault = KeyFault::kEmpty});
  if (units.size() > 1 && units[0] == '0' && (units[1] == 'x' || units[1] == 'X')) {
    units.erase(units.begin(), units.begin() + 2);
  }
  if (units.size() != kDigits) return refused({.fault = KeyFault::kWrongLength, .hex_digits = units.size()});
  std::string digits;
  for (std::size_t i = 0; i < units.size(); ++i) {
    if (!is_hex(units[i])) return refused({.fault = KeyFault::kNotHex, .position = i});
    digits += static_cast<char>(units[i]);
  }
  const std::string value = lower(digits);
  if (value >= kOrder || value == std::string(kDigits, '0')) return refused({.fault = KeyFault::kNotScalar});
  return {std::nullopt, digits};
}

std::string digits_of(const WalletKey& key) {
  std::array<char, kDigits> digits{};
  key.write_hex(digits);
  return {digits.data(), digits.size()};
}

WalletKey parsed_again(const std::string& text) {
  auto parsed = WalletKey::parse({text.data(), 1, text.size()});
  CHECK(std::holds_alternative<WalletKey>(parsed));
  return std::get<WalletKey>(std::move(parsed));
}

void check_key(const WalletKey& key, const std::string& digits) {
  CHECK(digits_of(key) == digits);
  CHECK(digits_of(key.copy()) == digits);
  const std::string address = key.address();
  CHECK(address.size() == 42 && address.starts_with("0x"));
  CHECK(address.find_first_not_of("0123456789abcdef", 2) == std::string::npos);
  CHECK(parsed_again("0X" + lower(digits)).address() == address);
}

void run(Input input) {
  const Units units = read_units(input);
  const Reading reading = expected(units.values);
  auto parsed = WalletKey::parse(units.text());
  if (const auto* refusal = std::get_if<KeyRefusal>(&parsed)) {
    CHECK(reading.refusal);
    CHECK(refusal->fault == reading.refusal->fault);
    CHECK(refusal->hex_digits == reading.refusal->hex_digits);
    CHECK(refusal->position == reading.refusal->position);
    return;
  }
  CHECK(!reading.refusal);
  check_key(std::get<WalletKey>(parsed), reading.digits);
}

}  // namespace
}  // namespace tessaline::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessaline::fuzz::run({data, size});
  return 0;
}
