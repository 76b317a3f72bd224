#pragma once

#include <secp256k1.h>

#include "tessaline/auth/wallet/curve_error.hpp"

namespace tessaline::auth::wallet {

/// The process's libsecp256k1 context: made and randomised at the first call, never destroyed, and read-only
/// afterwards. Safe for any thread, concurrently, and in a forked child.
///
/// A fault that libsecp256k1 reports does not abort the process: it is kept for require_curve_success() on
/// the same thread.
///
/// Throws CurveError or std::bad_alloc; the next call tries again.
const secp256k1_context* curve_context();

/// To be called with the result of a libsecp256k1 call, on the same thread. Throws CurveError, naming
/// `operation`, unless the call succeeded and reported no fault.
void require_curve_success(int result, const char* operation);

}  // namespace tessaline::auth::wallet
