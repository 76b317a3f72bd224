#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "tessaline/auth/wallet/curve_error.hpp"
#include "tessaline/auth/wallet/secret_memory.hpp"

namespace tessaline::auth::wallet {

inline constexpr std::size_t kKeyBytes = 32;
inline constexpr std::size_t kKeyHexDigits = 2 * kKeyBytes;

/// Text in the interpreter's own representation, so that a key is read in place and never copied.
struct KeyText {
  const void* units;   ///< `length` code units of `width` bytes each
  int width;           ///< 1, 2 or 4
  std::size_t length;  ///< in code units
};

enum class KeyFault { kEmpty, kWrongLength, kNotHex, kNotScalar };

/// Why a key text was refused. Has nothing of the text itself.
struct KeyRefusal {
  KeyFault fault;
  std::size_t hex_digits = 0;  ///< kWrongLength: length after the prefix was removed
  std::size_t position = 0;  ///< kNotHex: index of the first digit that is not hexadecimal, after the prefix
};

/// A secp256k1 private key in memory that is wiped and, if possible, locked.
///
/// Move-only; the destructor wipes. No branch or lookup in this code depends on key bytes. Any thread may use
/// an object, one at a time. A moved-from key may only be assigned to or destroyed.
class WalletKey {
 public:
  /// Reads 64 hexadecimal digits after an optional "0x" or "0X". Throws std::bad_alloc.
  static std::variant<WalletKey, KeyRefusal> parse(KeyText text);

  WalletKey(WalletKey&&) noexcept = default;
  WalletKey& operator=(WalletKey&&) noexcept = default;

  /// A second key object with the same value, in its own memory. Throws std::bad_alloc.
  WalletKey copy() const;

  /// Writes the 64 digits (no prefix), each letter in the case in which it was parsed. The caller owns
  /// `digits` and must wipe it.
  void write_hex(std::span<char, kKeyHexDigits> digits) const;

  /// "0x" and 40 lowercase hexadecimal digits: the last 20 bytes of the Keccak-256 of the uncompressed public
  /// key (SEC 2 curve secp256k1). Throws CurveError.
  std::string address() const;

  /// "0x" and 130 lowercase hexadecimal digits: r, s, v of the EIP-191 version 0x45 signature over `message`
  /// (RFC 6979 nonce, low s, v = 27 + recovery id). Throws CurveError.
  std::string sign_personal_message(std::string_view message) const;

 private:
  explicit WalletKey(SecretSlot slot) noexcept : slot_(std::move(slot)) {}

  SecretSlot slot_;
};

}  // namespace tessaline::auth::wallet
