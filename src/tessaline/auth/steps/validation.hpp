#pragma once

#include "tessaline/auth/python/ref.hpp"
#include "tessaline/auth/wallet/wallet_key.hpp"

namespace tessaline::auth {

/// Reads a private key from Python's text: 64 hexadecimal digits after an optional "0x" or "0X", with a
/// value strictly between 0 and the order of secp256k1. Raises InvalidKeyError; the error never repeats the
/// key.
wallet::WalletKey read_private_key(PyObject* private_key);

/// What `read_private_key` makes of the constructor's argument, unless the program has replaced the module's
/// `_validate_private_key`: then of what the replacement returns.
wallet::WalletKey read_constructor_key(PyObject* private_key);

/// Learns the module's own `_validate_private_key`. Called once, when the module is executed.
void know_own_validator();

/// The validated text without its prefix; the same object where it had none.
python::Ref validate_private_key(PyObject* private_key);

/// The URL as the package's policy for bearer transports returns it. Raises ValueError.
python::Ref validate_server_url(PyObject* server_url);

/// The code's text, trimmed, in lower case; None where it is none or blank.
python::Ref normalize_invite_code(PyObject* invite_code);

}  // namespace tessaline::auth
