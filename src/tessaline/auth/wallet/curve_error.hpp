#pragma once

#include <stdexcept>

namespace tessaline::auth::wallet {

/// libsecp256k1 or the system's random source reported a fault.
class CurveError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace tessaline::auth::wallet
