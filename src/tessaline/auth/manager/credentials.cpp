#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/manager.hpp"

namespace tessaline::auth {
namespace {

/// The value of a field that only an authenticated manager hands out.
Ref credential(AuthManager& manager, Field field) {
  State state;
  {
    const Locked lock(manager);
    state = manager.state();
  }
  if (state == State::kClosed) raise_auth_error(reason::kManagerClosed);
  if (state == State::kUninitialized || state == State::kAuthenticating) {
    raise_auth_error(reason::kNotAuthenticated);
  }
  const Locked lock(manager);
  Ref value = manager.get(field);
  if (value.is_none()) raise_auth_error(reason::kNotAuthenticated);
  return value;
}

}  // namespace

Ref AuthManager::get_wallet_secret() {
  return credential(*this, Field::kWalletSecret);
}

Ref AuthManager::get_token_expiry() {
  return credential(*this, Field::kTokenExpiry);
}

Ref AuthManager::get_wallet_address() {
  return get(Field::kWalletAddress);
}

}  // namespace tessaline::auth
