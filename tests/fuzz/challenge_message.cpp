// Challenge messages: whatever a server sends to sign, the signature is valid and is this wallet's.

#include <secp256k1_recovery.h>

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "check.hpp"
#include "input.hpp"
#include "tessaline/auth/wallet/hex.hpp"
#include "tessaline/auth/wallet/keccak.hpp"
#include "tessaline/auth/wallet/wallet_key.hpp"

namespace tessaline::fuzz {
namespace {

using auth::wallet::Digest;
using auth::wallet::Keccak256;
using auth::wallet::WalletKey;

constexpr std::string_view kKey = "8f2a55949038a9610f50fb23b5883af3b4ecb3c3bb792cbcefbd1542c692be63";
constexpr std::size_t kSignatureText = 132;

const WalletKey& wallet() {
  static const auto kParsed = WalletKey::parse({kKey.data(), 1, kKey.size()});
  return std::get<WalletKey>(kParsed);
}

const secp256k1_context* context() {
  static const secp256k1_context* const kContext = secp256k1_context_create(SECP256K1_CONTEXT_VERIFY);
  return kContext;
}

std::span<const std::uint8_t> as_bytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::array<std::uint8_t, 65> decoded(const std::string& signature) {
  CHECK(signature.size() == kSignatureText && signature.starts_with("0x"));
  std::array<std::uint8_t, 65> bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const auto digit = [&](std::size_t at) {
      const char c = signature.at(at);
      CHECK((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'));
      return static_cast<unsigned>(c <= '9' ? c - '0' : c - 'a' + 10);
    };
    bytes.at(i) = static_cast<std::uint8_t>(digit(2 + 2 * i) << 4U | digit(3 + 2 * i));
  }
  return bytes;
}

/// The digest, computed in pieces of `step` bytes.
Digest digest_in_pieces(std::string_view text, std::size_t step) {
  Keccak256 hash;
  for (; !text.empty(); text.remove_prefix(std::min(step, text.size()))) {
    hash.update(as_bytes(text.substr(0, step)));
  }
  return hash.finish();
}

std::string recovered_address(const std::array<std::uint8_t, 65>& signature, const Digest& digest) {
  CHECK(signature.back() == 27 || signature.back() == 28);
  secp256k1_ecdsa_recoverable_signature parsed;
  CHECK(secp256k1_ecdsa_recoverable_signature_parse_compact(context(), &parsed, signature.data(),
                                                            signature.back() - 27) == 1);
  secp256k1_ecdsa_signature plain;
  secp256k1_ecdsa_recoverable_signature_convert(context(), &plain, &parsed);
  CHECK(secp256k1_ecdsa_signature_normalize(context(), nullptr, &plain) == 0);  // low already

  secp256k1_pubkey point;
  CHECK(secp256k1_ecdsa_recover(context(), &point, &parsed, digest.data()) == 1);
  std::array<std::uint8_t, 65> serialized{};
  std::size_t size = serialized.size();
  secp256k1_ec_pubkey_serialize(context(), serialized.data(), &size, &point, SECP256K1_EC_UNCOMPRESSED);
  const Digest hashed = auth::wallet::keccak256(std::span(serialized).subspan<1>());
  std::string address = "0x";
  auth::wallet::append_hex(address, std::span(hashed).last<20>());
  return address;
}

void run(Input input) {
  const std::size_t step = input.byte() + std::size_t{1};
  const std::string_view message = input.rest();
  const std::string signature = wallet().sign_personal_message(message);
  CHECK(signature == wallet().copy().sign_personal_message(message));

  std::string signed_text =
      "\x19"
      "Ethereum Signed Message:\n" +
      std::to_string(message.size());
  signed_text += message;
  const Digest digest = digest_in_pieces(signed_text, step);
  CHECK(digest == auth::wallet::keccak256(as_bytes(signed_text)));
  CHECK(recovered_address(decoded(signature), digest) == wallet().address());
}

}  // namespace
}  // namespace tessaline::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessaline::fuzz::run({data, size});
  return 0;
}
