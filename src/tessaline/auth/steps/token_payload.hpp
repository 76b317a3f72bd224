#pragma once

#include "tessaline/auth/python/ref.hpp"

// Claims of a JWT (RFC 7519), read without verification: the server verifies its own tokens, the client only
// makes sure that one belongs to this wallet and to an announced era. Timing never comes from claims.

namespace tessaline::auth {

/// The payload as a dict. Raises AuthError "wallet_mismatch" for everything that cannot be read as one: a
/// token that cannot be read cannot be proven to belong to the wallet.
python::Ref decode_jwt_payload_unverified(PyObject* token);

/// The claim "era_number" as an int, or None where it is missing, null, a boolean or not positive. Raises
/// AuthError "era_mismatch" for a value that is no number.
python::Ref jwt_era_number(PyObject* token);

/// Raises AuthError "wallet_mismatch" unless the claim "sub", lowercased, equals `wallet_address`.
void assert_token_subject_matches_wallet(PyObject* token, PyObject* wallet_address);

}  // namespace tessaline::auth
