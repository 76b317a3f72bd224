#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/held_lock.hpp"

namespace tessaline::auth {
namespace {

/// A field that is available only on an authenticated manager.
Ref credential(AuthManager& manager, Field field) {
  State state;
  {
    const HeldLock held(manager);
    state = held.state();
  }
  if (state == State::kClosed) raise_auth_error(reason::kManagerClosed);
  if (state == State::kUninitialized || state == State::kAuthenticating) {
    raise_auth_error(reason::kNotAuthenticated);
  }
  const HeldLock held(manager);
  Ref value = held.get(field);
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
