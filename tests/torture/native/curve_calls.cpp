#include <secp256k1.h>
#include <secp256k1_preallocated.h>
#include <secp256k1_recovery.h>

#include "next.hpp"
#include "plan.hpp"

// Replace libsecp256k1's functions. The ways to fail: with 0 alone, and with 0 after a report to the
// illegal-argument callback.

namespace {

using Callback = void (*)(const char*, void*);

Callback report = nullptr;
void* report_data = nullptr;

int fail(int way) {
  if (way == 1 && report != nullptr) report("injected", report_data);
  return 0;
}

constexpr int kWays = 2;

}  // namespace

extern "C" {

secp256k1_context* secp256k1_context_preallocated_create(void* memory, unsigned flags) {
  TORTURE_NEXT(secp256k1_context_preallocated_create);
  return TORTURE_WAY(secp256k1_context_preallocated_create, 1) < 0 ? real(memory, flags) : nullptr;
}

void secp256k1_context_set_illegal_callback(secp256k1_context* context, Callback callback, const void* data) {
  TORTURE_NEXT(secp256k1_context_set_illegal_callback);
  report = callback;
  report_data = const_cast<void*>(data);
  real(context, callback, data);
}

int secp256k1_context_randomize(secp256k1_context* context, const unsigned char* seed) {
  TORTURE_NEXT(secp256k1_context_randomize);
  const int way = TORTURE_WAY(secp256k1_context_randomize, kWays);
  return way < 0 ? real(context, seed) : fail(way);
}

int secp256k1_ec_seckey_verify(const secp256k1_context* context, const unsigned char* key) {
  TORTURE_NEXT(secp256k1_ec_seckey_verify);
  return TORTURE_WAY(secp256k1_ec_seckey_verify, 1) < 0 ? real(context, key) : 0;
}

int secp256k1_ec_pubkey_create(const secp256k1_context* context, secp256k1_pubkey* point,
                               const unsigned char* key) {
  TORTURE_NEXT(secp256k1_ec_pubkey_create);
  const int way = TORTURE_WAY(secp256k1_ec_pubkey_create, kWays);
  return way < 0 ? real(context, point, key) : fail(way);
}

int secp256k1_ec_pubkey_serialize(const secp256k1_context* context, unsigned char* output, size_t* size,
                                  const secp256k1_pubkey* point, unsigned flags) {
  TORTURE_NEXT(secp256k1_ec_pubkey_serialize);
  const int way = TORTURE_WAY(secp256k1_ec_pubkey_serialize, kWays);
  return way < 0 ? real(context, output, size, point, flags) : fail(way);
}

int secp256k1_ecdsa_sign_recoverable(const secp256k1_context* context,
                                     secp256k1_ecdsa_recoverable_signature* signature,
                                     const unsigned char* digest, const unsigned char* key,
                                     secp256k1_nonce_function nonce, const void* nonce_data) {
  TORTURE_NEXT(secp256k1_ecdsa_sign_recoverable);
  const int way = TORTURE_WAY(secp256k1_ecdsa_sign_recoverable, kWays);
  return way < 0 ? real(context, signature, digest, key, nonce, nonce_data) : fail(way);
}

int secp256k1_ecdsa_recoverable_signature_serialize_compact(
    const secp256k1_context* context, unsigned char* output, int* recovery_id,
    const secp256k1_ecdsa_recoverable_signature* signature) {
  TORTURE_NEXT(secp256k1_ecdsa_recoverable_signature_serialize_compact);
  const int way = TORTURE_WAY(secp256k1_ecdsa_recoverable_signature_serialize_compact, kWays);
  return way < 0 ? real(context, output, recovery_id, signature) : fail(way);
}

}  // extern "C"
