#include "tessaline/auth/wallet/wallet_key.hpp"

#include <secp256k1.h>
#include <secp256k1_recovery.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "tessaline/auth/wallet/curve.hpp"
#include "tessaline/auth/wallet/hex.hpp"
#include "tessaline/auth/wallet/keccak.hpp"

namespace tessaline::auth::wallet {
namespace {

constexpr std::size_t kAddressBytes = 20;
constexpr std::size_t kPublicKeyBytes = 65;
constexpr std::size_t kCompactSignatureBytes = 64;
constexpr int kFirstRecoveryByte = 27;

using SlotBytes = std::span<std::uint8_t, SecretSlot::kSize>;

// Which digits were uppercase: bit i for digit i, stored after the key bytes.
std::uint64_t load_capitals(SlotBytes slot) noexcept {
  std::uint64_t capitals = 0;
  std::memcpy(&capitals, slot.data() + kKeyBytes, sizeof capitals);
  return capitals;
}

void store_capitals(SlotBytes slot, std::uint64_t capitals) noexcept {
  std::memcpy(slot.data() + kKeyBytes, &capitals, sizeof capitals);
}

template <typename Unit>
std::uint32_t load_unit(const void* units, std::size_t index) noexcept {
  Unit unit{};
  std::memcpy(&unit, static_cast<const std::uint8_t*>(units) + index * sizeof unit, sizeof unit);
  return unit;
}

std::uint32_t unit_at(KeyText text, std::size_t index) noexcept {
  switch (text.width) {
    case 1:
      return load_unit<std::uint8_t>(text.units, index);
    case 2:
      return load_unit<std::uint16_t>(text.units, index);
    default:
      return load_unit<std::uint32_t>(text.units, index);
  }
}

// One branch on both units together: a branch on the first alone would reveal whether a key without prefix
// begins with 0. The compiler must neither split it nor select an address without a branch.
KeyText without_prefix(KeyText text) noexcept {
  constexpr std::size_t kPrefix = 2;
  if (text.length < kPrefix) return text;
  const std::uint64_t difference = opaque((unit_at(text, 0) ^ '0') | ((unit_at(text, 1) | 0x20U) ^ 'x'));
  if (difference != 0) return text;
  asm volatile("");
  const auto* units = static_cast<const std::uint8_t*>(text.units);
  return {units + kPrefix * static_cast<std::size_t>(text.width), text.width, text.length - kPrefix};
}

// Not inlined, so that its stack frame is within reach of wipe_stack_below().
[[gnu::noinline]] bool decode_digits(KeyText digits, SlotBytes slot) noexcept {
  std::uint64_t capitals = 0;
  std::uint64_t bad = 0;
  for (std::size_t i = 0; i < kKeyHexDigits; i += 2) {
    const HexDigit high = read_hex_digit(unit_at(digits, i));
    const HexDigit low = read_hex_digit(unit_at(digits, i + 1));
    slot[i / 2] = static_cast<std::uint8_t>(high.value << 4U | low.value);
    capitals |= (high.upper | low.upper << 1U) << i;
    bad |= high.bad | low.bad;
  }
  store_capitals(slot, capitals);
  return bad == 0;
}

[[gnu::noinline]] void encode_digits(SlotBytes slot, std::span<char, kKeyHexDigits> digits) noexcept {
  const std::uint64_t capitals = load_capitals(slot);
  for (std::size_t i = 0; i < kKeyHexDigits; i += 2) {
    const std::uint8_t byte = slot[i / 2];
    digits[i] = write_hex_digit(byte >> 4U, capitals >> i & 1);
    digits[i + 1] = write_hex_digit(byte & 0xFU, capitals >> (i + 1) & 1);
  }
}

std::size_t first_bad_digit(KeyText digits) noexcept {
  std::size_t position = 0;
  while (position < digits.length && read_hex_digit(unit_at(digits, position)).bad == 0) ++position;
  return position;
}

// The static context needs no initialisation, so keys can be parsed without the random source.
bool is_scalar(SlotBytes slot) noexcept {
  const int valid = secp256k1_ec_seckey_verify(secp256k1_context_static, slot.data());
  wipe_stack_below();
  return valid == 1;
}

std::span<const std::uint8_t> as_bytes(std::string_view text) noexcept {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

Digest personal_message_digest(std::string_view message) {
  Keccak256 hash;
  hash.update(
      as_bytes("\x19"
               "Ethereum Signed Message:\n"));
  hash.update(as_bytes(std::to_string(message.size())));
  hash.update(as_bytes(message));
  return hash.finish();
}

}  // namespace

std::variant<WalletKey, KeyRefusal> WalletKey::parse(KeyText text) {
  if (text.length == 0) return KeyRefusal{.fault = KeyFault::kEmpty};

  const KeyText digits = without_prefix(text);
  if (digits.length != kKeyHexDigits) {
    return KeyRefusal{.fault = KeyFault::kWrongLength, .hex_digits = digits.length};
  }

  WalletKey key(SecretSlot::acquire());
  const bool hexadecimal = decode_digits(digits, key.slot_.bytes());
  wipe_stack_below();
  if (!hexadecimal) return KeyRefusal{.fault = KeyFault::kNotHex, .position = first_bad_digit(digits)};
  if (!is_scalar(key.slot_.bytes())) return KeyRefusal{.fault = KeyFault::kNotScalar};
  return key;
}

WalletKey WalletKey::copy() const {
  WalletKey twin(SecretSlot::acquire());
  std::ranges::copy(slot_.bytes(), twin.slot_.bytes().begin());
  wipe_stack_below();
  return twin;
}

void WalletKey::write_hex(std::span<char, kKeyHexDigits> digits) const {
  encode_digits(slot_.bytes(), digits);
  wipe_stack_below();
}

std::string WalletKey::address() const {
  const secp256k1_context* context = curve_context();
  secp256k1_pubkey point;
  const int created = secp256k1_ec_pubkey_create(context, &point, slot_.bytes().data());
  wipe_stack_below();
  require_curve_success(created, "public key creation");

  std::array<std::uint8_t, kPublicKeyBytes> serialized{};
  std::size_t size = serialized.size();
  require_curve_success(
      secp256k1_ec_pubkey_serialize(context, serialized.data(), &size, &point, SECP256K1_EC_UNCOMPRESSED),
      "public key serialization");

  const Digest digest = keccak256(std::span(serialized).subspan<1>());
  std::string text = "0x";
  append_hex(text, std::span(digest).last<kAddressBytes>());
  return text;
}

std::string WalletKey::sign_personal_message(std::string_view message) const {
  const secp256k1_context* context = curve_context();
  const Digest digest = personal_message_digest(message);
  secp256k1_ecdsa_recoverable_signature signature;
  const int signed_ok = secp256k1_ecdsa_sign_recoverable(context, &signature, digest.data(),
                                                         slot_.bytes().data(), nullptr, nullptr);
  wipe_stack_below();
  require_curve_success(signed_ok, "signing");

  std::array<std::uint8_t, kCompactSignatureBytes + 1> serialized{};
  int recovery_id = 0;
  require_curve_success(secp256k1_ecdsa_recoverable_signature_serialize_compact(context, serialized.data(),
                                                                                &recovery_id, &signature),
                        "signature serialization");
  serialized.back() = static_cast<std::uint8_t>(kFirstRecoveryByte + recovery_id);

  std::string text = "0x";
  append_hex(text, serialized);
  return text;
}

}  // namespace tessaline::auth::wallet
