#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/era.hpp"
#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/steps/clock.hpp"

namespace tessaline::auth {

Ref AuthManager::store_auth_result(PyObject* token, PyObject* wallet_secret) {
  const HeldLock held = HeldLock::of_caller(*this);
  python::call(python::global(names::assert_token_subject).get(), {token, get(Field::kWalletAddress).get()});
  const Ref known_secret = held.get(Field::kWalletSecret);
  if (!known_secret.is_none() && !python::equal(known_secret.get(), wallet_secret)) {
    raise_auth_error(reason::kWalletSecretChanged);
  }
  const Ref pending_era = held.get(Field::kPendingEraNumber);
  if (!pending_era.is_none() && !meets_era(token, pending_era.get())) {
    raise_auth_error(reason::kEraMismatch);
  }
  const Ref now = call_own(names::get_time);
  Ref expiry;
  reckon_with(now.get(),
              [&] { expiry = python::add(now.get(), python::global(names::token_lifetime).get()); });
  Ref refresh_at = call_own(names::compute_refresh_at, {now.get()});

  held.set(Field::kToken, Ref::borrow(token));
  held.set(Field::kWalletSecret, Ref::borrow(wallet_secret));
  held.set(Field::kAuthTime, Ref::borrow(now.get()));
  held.set(Field::kTokenIat, Ref::borrow(now.get()));
  held.set(Field::kTokenExpiry, std::move(expiry));
  held.set(Field::kRefreshAt, std::move(refresh_at));
  held.set_state(State::kAuthenticated);
  held.set(Field::kPermanentRefreshError, false);
  held.set(Field::kAuthError, Ref::none());
  held.set(Field::kReauthMode, Ref::none());
  held.set(Field::kPendingEraNumber, Ref::none());
  clear_event(Field::kRefreshEvent);
  held.set_auth_event();
  set_event(Field::kRefreshDone);
  return Ref::none();
}

}  // namespace tessaline::auth
