#pragma once

#include <secp256k1.h>

#include "tessaline/auth/wallet/curve_error.hpp"

namespace tessaline::auth::wallet {

/// The process's libsecp256k1 context: made and randomised at the first call, never destroyed, and only read
/// afterwards. Any thread may call, also at the same time as others and in the child of a fork.
///
/// A fault that libsecp256k1 reports while using it does not abort the process: it is kept for
/// require_curve_success() on the same thread.
///
/// Throws CurveError or std::bad_alloc; the next call tries again.
const secp256k1_context* curve_context();

/// To be called on the thread that made a libsecp256k1 call, with that call's result. Throws CurveError,
/// naming `operation`, unless the call succeeded and reported no fault.
void require_curve_success(int result, const char* operation);

}  // namespace tessaline::auth::wallet
