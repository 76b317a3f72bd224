#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <secp256k1.h>
#include <secp256k1_recovery.h>

#include <array>
#include <string>
#include <string_view>
#include <variant>

#include "hex_text.hpp"
#include "tessaline/auth/wallet/curve.hpp"
#include "tessaline/auth/wallet/keccak.hpp"
#include "tessaline/auth/wallet/wallet_key.hpp"
#include "vector_tables.hpp"

namespace tessaline::auth::wallet {
namespace {

using testing::Bytes;
using testing::bytes_of;
using testing::hex_text;
using testing::rows_of;

constexpr std::string_view kHalfOrder = "7fffffffffffffffffffffffffffffff5d576e7357a4501ddfe92f46681b20a0";

// A digest signed by the same call as for messages: r and s.
std::string signature_of(const std::string& key, const Bytes& digest) {
  secp256k1_ecdsa_recoverable_signature signature;
  const int made = secp256k1_ecdsa_sign_recoverable(curve_context(), &signature, digest.data(),
                                                    bytes_of(key).data(), nullptr, nullptr);
  require_curve_success(made, "signing");
  std::array<std::uint8_t, 64> compact{};
  int recovery_id = 0;
  require_curve_success(secp256k1_ecdsa_recoverable_signature_serialize_compact(
                            curve_context(), compact.data(), &recovery_id, &signature),
                        "signature serialization");
  return hex_text(compact);
}

// x of the nonce times the generator. No nonce of the table has an x above the order, so this is r.
std::string r_of(const std::string& nonce) {
  secp256k1_pubkey point;
  require_curve_success(secp256k1_ec_pubkey_create(curve_context(), &point, bytes_of(nonce).data()), "point");
  std::array<std::uint8_t, 33> compressed{};
  std::size_t size = compressed.size();
  require_curve_success(secp256k1_ec_pubkey_serialize(curve_context(), compressed.data(), &size, &point,
                                                      SECP256K1_EC_COMPRESSED),
                        "public key serialization");
  return hex_text(std::span<const std::uint8_t>(compressed).subspan<1>());
}

Bytes sha256(std::string_view text) {
  Bytes digest(SHA256_DIGEST_LENGTH);
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
  return digest;
}

WalletKey key_of(std::string_view text) {
  return std::get<WalletKey>(WalletKey::parse({text.data(), 1, text.size()}));
}

TEST(SigningVectorsTest, NoncesAreDeterministic) {
  const auto rows = rows_of("curve/nonces.tsv", 4);
  ASSERT_EQ(rows.size(), 16U);
  for (const auto& row : rows) {
    EXPECT_EQ(signature_of(row[1], sha256(row[0])).substr(0, 64), r_of(row[2])) << row[0];
  }
}

TEST(SigningVectorsTest, SignaturesAreDeterministicAndLow) {
  const auto rows = rows_of("curve/signatures.tsv", 3);
  ASSERT_EQ(rows.size(), 16U);
  for (const auto& row : rows) {
    const std::string signature = signature_of(row[0], bytes_of(row[1]));
    EXPECT_EQ(signature, row[2]);
    EXPECT_LE(signature.substr(64), kHalfOrder);
  }
}

// As in RFC 6979: a digest above the order is reduced for the nonce too.
TEST(SigningVectorsTest, DigestsAreReduced) {
  const std::string all_ones(64, 'f');
  const std::string reduced = "000000000000000000000000000000014551231950b75fc4402da1732fc9bebe";
  for (const auto& row : rows_of("curve/nonces.tsv", 4)) {
    EXPECT_EQ(signature_of(row[1], bytes_of(all_ones)), signature_of(row[1], bytes_of(reduced)));
  }
}

TEST(SigningVectorsTest, PersonalMessages) {
  const auto rows = rows_of("messages/personal_messages.tsv", 7);
  ASSERT_EQ(rows.size(), 6U);
  std::size_t addresses = 0;
  for (const auto& row : rows) {
    const Bytes message = bytes_of(row[2]);
    const std::string text(message.begin(), message.end());
    const WalletKey key = key_of(row[1]);
    EXPECT_EQ(key.sign_personal_message(text), "0x" + row[4]) << row[0];
    const std::string prefixed =
        "\x19"
        "Ethereum Signed Message:\n" +
        std::to_string(text.size()) + text;
    EXPECT_EQ(hex_text(keccak256({reinterpret_cast<const std::uint8_t*>(prefixed.data()), prefixed.size()})),
              row[3])
        << row[0];
    EXPECT_EQ(signature_of(row[1], bytes_of(row[3])), row[4].substr(0, 128)) << row[0];
    if (row[5].empty()) continue;
    EXPECT_EQ(key.address(), "0x" + row[5]) << row[0];
    ++addresses;
  }
  EXPECT_EQ(addresses, 3U);
}

}  // namespace
}  // namespace tessaline::auth::wallet
