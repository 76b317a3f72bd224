#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "check.hpp"
#include "secret.hpp"
#include "tessaline/auth/wallet/hex.hpp"
#include "tessaline/auth/wallet/keccak.hpp"
#include "tessaline/auth/wallet/secret_memory.hpp"
#include "tessaline/auth/wallet/wallet_key.hpp"

namespace tessaline::ctime {
namespace {

using auth::wallet::KeyFault;
using auth::wallet::KeyRefusal;
using auth::wallet::kKeyHexDigits;
using auth::wallet::WalletKey;

// Every digit in every case, and a digit of each kind at both ends.
constexpr std::string_view kDigits = "A123456789abcdef0fEDCBa9876543210123456789ABCDEF0fedcbA98765432f";
constexpr std::string_view kPrefixed = "0xA123456789abcdef0fEDCBa9876543210123456789ABCDEF0fedcbA98765432f";
constexpr std::string_view kLeadingZero = "0023456789abcdef0fEDCBa9876543210123456789ABCDEF0fedcbA987654320";
constexpr std::string_view kZero = "0000000000000000000000000000000000000000000000000000000000000000";
constexpr std::string_view kOrder = "fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364141";
constexpr std::string_view kNotHex = "A123456789abcdef0fEDCBa987654321012345678gABCDEF0fedcbA98765432f";

template <typename Unit>
std::variant<WalletKey, KeyRefusal> parse(const Secret<Unit>& text) {
  return WalletKey::parse({text.values().data(), static_cast<int>(sizeof(Unit)), text.values().size()});
}

template <typename Unit = char>
WalletKey key_of(std::string_view digits) {
  const Secret<Unit> text(digits);
  return std::get<WalletKey>(parse(text));
}

// The digits are still secret, all of them, and the right ones.
void require_digits(const WalletKey& key, std::string_view expected) {
  std::array<char, kKeyHexDigits> digits{};
  key.write_hex(digits);
  require(count_secret<char>(digits) == digits.size(), "the digits written are all secret");
  ctime_mark_public(digits.data(), digits.size());
  require(std::string_view(digits.data(), digits.size()) == expected, "the digits written are those read");
}

void require_refusal(std::string_view digits, KeyFault fault) {
  const Secret<char> text(digits);
  const auto result = parse(text);
  const auto* refusal = std::get_if<KeyRefusal>(&result);
  require(refusal != nullptr && refusal->fault == fault, "the key is refused for the expected reason");
}

void require_public(std::string_view text, std::size_t size) {
  require(text.size() == size, "the text has its length");
  require(count_secret<char>(text) == 0, "the text depends on nothing but public results");
}

void parse_narrow_text() {
  require_digits(key_of(kDigits), kDigits);
}

void parse_wide_text() {
  require_digits(key_of<char16_t>(kDigits), kDigits);
  require_digits(key_of<char32_t>(kDigits), kDigits);
}

void parse_prefixed_text() {
  require_digits(key_of(kPrefixed), kDigits);
  require_digits(key_of<char16_t>(kPrefixed), kDigits);
  require_digits(key_of<char32_t>(kPrefixed), kDigits);
}

void parse_leading_zeros() {
  require_digits(key_of(kLeadingZero), kLeadingZero);
}

void refuse_scalars() {
  require_refusal(kZero, KeyFault::kNotScalar);
  require_refusal(kOrder, KeyFault::kNotScalar);
}

void refuse_other_characters() {
  require_refusal(kNotHex, KeyFault::kNotHex);
}

void copy_and_move() {
  WalletKey key = key_of(kLeadingZero);
  {
    const WalletKey original = key_of(kDigits);
    key = original.copy();
  }
  const WalletKey moved = std::move(key);
  require_digits(moved, kDigits);
}

void derive_address() {
  require_public(key_of(kDigits).address(), 42);
}

void sign_message() {
  require_public(key_of(kDigits).sign_personal_message("a public message"), 132);
}

void write_digits() {
  const std::array<std::uint8_t, 4> bytes{0x09, 0xaf, 0xf0, 0x5a};
  const Secret<unsigned char> secret{bytes};
  std::string text;
  auth::wallet::append_hex(text, secret.values());
  require(count_secret<char>(text) == text.size(), "the digits appended are all secret");
  ctime_mark_public(text.data(), text.size());
  require(text == "09aff05a", "the digits appended are those of the bytes");
}

void hash_bytes() {
  const std::string long_text(300, 'k');
  const Secret<unsigned char> secret{long_text};
  const auto digest = auth::wallet::keccak256(secret.values());
  require(count_secret<std::uint8_t>(digest) == digest.size(), "the whole digest is secret");
}

void wipe_memory() {
  auto slot = auth::wallet::SecretSlot::acquire();
  const auto bytes = slot.bytes();
  std::ranges::copy(Secret<unsigned char>{kDigits}.values(), bytes.begin());
  const WalletKey key = key_of(kDigits);
  std::array<char, kKeyHexDigits> digits{};
  key.write_hex(digits);
  std::ranges::copy(digits, bytes.begin());
  require(count_secret<std::uint8_t>(bytes) == kKeyHexDigits, "the slot holds the secret");
  auth::wallet::wipe(bytes.data(), bytes.size());
  require(count_secret<std::uint8_t>(bytes) == 0, "the slot holds nothing secret any more");
}

constexpr std::array kChecks = {
    Check{"WalletKey::parse, narrow text", parse_narrow_text},
    Check{"WalletKey::parse, wide text", parse_wide_text},
    Check{"WalletKey::parse, prefixed text", parse_prefixed_text},
    Check{"WalletKey::parse, leading zeros", parse_leading_zeros},
    Check{"WalletKey::parse, no scalar", refuse_scalars},
    Check{"WalletKey::parse, no hexadecimal text", refuse_other_characters},
    Check{"WalletKey::copy, moves, write_hex", copy_and_move},
    Check{"WalletKey::address", derive_address},
    Check{"WalletKey::sign_personal_message", sign_message},
    Check{"append_hex", write_digits},
    Check{"keccak256", hash_bytes},
    Check{"wipe", wipe_memory},
};

}  // namespace

std::span<const Check> component_checks() {
  return kChecks;
}

}  // namespace tessaline::ctime
