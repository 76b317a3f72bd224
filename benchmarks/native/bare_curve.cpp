#include "bare_curve.hpp"

#include <secp256k1.h>
#include <secp256k1_recovery.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

#include "tessaline/auth/wallet/keccak.hpp"
#include "tessaline/auth/wallet/wallet_key.hpp"

namespace tessaline::benchmarks {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kKeyDigits = "4c0883a69102937d6231471b5dbb6204fe5129617082792ae468d01a3f362318";

// The optimizer must not remove an unused result.
template <typename Value>
void keep(const Value& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

void require(int result) {
  if (result != 1) throw std::runtime_error("libsecp256k1 refused");
}

std::array<std::uint8_t, 32> key_bytes() {
  std::array<std::uint8_t, 32> key{};
  for (std::size_t i = 0; i < key.size(); ++i) {
    key[i] = static_cast<std::uint8_t>(std::stoul(std::string(kKeyDigits.substr(2 * i, 2)), nullptr, 16));
  }
  return key;
}

const secp256k1_context* randomized_context() {
  static const secp256k1_context* context = [] {
    secp256k1_context* made = secp256k1_context_create(SECP256K1_CONTEXT_NONE);
    const std::array<std::uint8_t, 32> seed{1};
    require(secp256k1_context_randomize(made, seed.data()));
    return made;
  }();
  return context;
}

template <typename Operation>
double time_of(std::size_t loops, Operation operation) {
  const Clock::time_point begin = Clock::now();
  for (std::size_t i = 0; i < loops; ++i) operation();
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

}  // namespace

double time_bare_signing(std::size_t loops, std::size_t message_bytes) {
  const secp256k1_context* context = randomized_context();
  const std::array<std::uint8_t, 32> key = key_bytes();
  const std::string text =
      "\x19"
      "Ethereum Signed Message:\n" +
      std::to_string(message_bytes) + std::string(message_bytes, 'm');
  const std::span bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  return time_of(loops, [&] {
    const auth::wallet::Digest digest = auth::wallet::keccak256(bytes);
    secp256k1_ecdsa_recoverable_signature signature;
    require(
        secp256k1_ecdsa_sign_recoverable(context, &signature, digest.data(), key.data(), nullptr, nullptr));
    keep(signature);
  });
}

double time_login_signing(std::size_t loops, std::size_t message_bytes) {
  const std::string message(message_bytes, 'm');
  const auto parsed = auth::wallet::WalletKey::parse({kKeyDigits.data(), 1, kKeyDigits.size()});
  const auto& key = std::get<auth::wallet::WalletKey>(parsed);
  return time_of(loops, [&] { keep(key.sign_personal_message(message)); });
}

double time_bare_derivation(std::size_t loops) {
  const secp256k1_context* context = randomized_context();
  const std::array<std::uint8_t, 32> key = key_bytes();
  return time_of(loops, [&] {
    secp256k1_pubkey point;
    require(secp256k1_ec_pubkey_create(context, &point, key.data()));
    keep(point);
  });
}

}  // namespace tessaline::benchmarks
