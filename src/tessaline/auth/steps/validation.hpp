#pragma once

#include "tessaline/auth/python/ref.hpp"
#include "tessaline/auth/wallet/wallet_key.hpp"

namespace tessaline::auth {

/// Reads a private key from Python's text: 64 hexadecimal digits after an optional "0x" or "0X", with a value
/// strictly between 0 and the order of secp256k1. Raises InvalidKeyError, which never shows the key.
wallet::WalletKey read_private_key(PyObject* private_key);

/// `read_private_key` of the constructor's argument, or of what `_validate_private_key` returns if the
/// program has replaced that.
wallet::WalletKey read_constructor_key(PyObject* private_key);

/// Looks up the module's own `_validate_private_key`. Called once, by the module's initialisation.
void know_own_validator();

/// The validated text without its prefix; the same object if it had none.
python::Ref validate_private_key(PyObject* private_key);

/// The URL as normalised by the package's policy for bearer tokens. Raises ValueError.
python::Ref validate_server_url(PyObject* server_url);

/// The code's text, trimmed and in lowercase; None if there is none or it is blank.
python::Ref normalize_invite_code(PyObject* invite_code);

}  // namespace tessaline::auth
