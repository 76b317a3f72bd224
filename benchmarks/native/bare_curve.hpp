#pragma once

#include <cstddef>

namespace tessaline::benchmarks {

/// Each runs one operation `loops` times and returns the total seconds (monotonic clock). Throws
/// std::runtime_error if libsecp256k1 fails.

/// Keccak-256 over the prefixed message of `message_bytes`, and a recoverable signature; nothing else.
double time_bare_signing(std::size_t loops, std::size_t message_bytes);

/// The signature that a login makes, as text.
double time_login_signing(std::size_t loops, std::size_t message_bytes);

/// The public key of a private key.
double time_bare_derivation(std::size_t loops);

}  // namespace tessaline::benchmarks
