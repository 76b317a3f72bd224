// Wraps libsecp256k1 for the component, and marks as public what a call on a key reveals by its purpose:
// whether the key is a scalar of the curve, the public key, the signature, and whether the call succeeded.
// The library's own constant-time tests mark the same values.

#include <dlfcn.h>
#include <secp256k1.h>
#include <secp256k1_recovery.h>

#include <cstdio>
#include <cstdlib>

#include "marks.hpp"

namespace {

template <typename Function>
Function* next(const char* name) {
  void* found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) {
    std::fprintf(stderr, "ctime: no %s behind the one that marks its results\n", name);
    std::abort();
  }
  return reinterpret_cast<Function*>(found);
}

int made_public(int result) {
  ctime_mark_public(&result, sizeof result);
  return result;
}

}  // namespace

extern "C" {

int secp256k1_ec_seckey_verify(const secp256k1_context* context, const unsigned char* key) {
  static auto* const call = next<decltype(secp256k1_ec_seckey_verify)>("secp256k1_ec_seckey_verify");
  return made_public(call(context, key));
}

int secp256k1_ec_pubkey_create(const secp256k1_context* context, secp256k1_pubkey* point,
                               const unsigned char* key) {
  static auto* const call = next<decltype(secp256k1_ec_pubkey_create)>("secp256k1_ec_pubkey_create");
  const int result = made_public(call(context, point, key));
  ctime_mark_public(point, sizeof *point);
  return result;
}

int secp256k1_ecdsa_sign_recoverable(const secp256k1_context* context,
                                     secp256k1_ecdsa_recoverable_signature* signature,
                                     const unsigned char* digest, const unsigned char* key,
                                     secp256k1_nonce_function nonce, const void* nonce_data) {
  static auto* const call =
      next<decltype(secp256k1_ecdsa_sign_recoverable)>("secp256k1_ecdsa_sign_recoverable");
  const int result = made_public(call(context, signature, digest, key, nonce, nonce_data));
  ctime_mark_public(signature, sizeof *signature);
  return result;
}

}  // extern "C"
