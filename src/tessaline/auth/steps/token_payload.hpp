#pragma once

#include "tessaline/auth/python/ref.hpp"

// Claims of a JWT (RFC 7519), read without verification: the server verifies its own tokens, and the client
// only checks that a token is for this wallet and meets an announced era. Timing never depends on claims.

namespace tessaline::auth {

/// The payload as a dict. Raises AuthError "wallet_mismatch" if it cannot be decoded: such a token cannot be
/// proven to be the wallet's.
python::Ref decode_jwt_payload_unverified(PyObject* token);

/// The claim "era_number" as an int, or None if it is missing, null, a boolean or not positive. Raises
/// AuthError "era_mismatch" for a value that is not a number.
python::Ref jwt_era_number(PyObject* token);

/// Raises AuthError "wallet_mismatch" unless the claim "sub", lowercased, equals `wallet_address`.
void assert_token_subject_matches_wallet(PyObject* token, PyObject* wallet_address);

}  // namespace tessaline::auth
