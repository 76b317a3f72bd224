#include <optional>
#include <string>
#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/errors/notes.hpp"
#include "tessaline/auth/manager/era.hpp"
#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/steps/closing.hpp"

namespace tessaline::auth {
namespace {

/// A verification's response to an unknown, expired or used challenge.
bool is_stale_challenge(PyObject* status) {
  const long code = python::long_value(status);
  return code == 404 || code == 410 || code == 409;
}

Ref member_of(const Ref& answer, const python::Name& name) {
  return python::with_note(notes::kLoginAnswer, [&] { return python::item(answer.get(), name.object()); });
}

/// Signs `message` with a copy of the key, since `close` may wipe the original meanwhile.
Ref sign(const wallet::WalletKey& key, PyObject* message) {
  if (!PyUnicode_Check(message)) {
    PyErr_Format(PyExc_TypeError, "challenge message must be str, not %.200s", Py_TYPE(message)->tp_name);
    throw python::noted(python::Error::fetch(), notes::kLoginAnswer);
  }
  const std::string_view text = python::utf8_of(message);
  wallet::WalletKey copy = key.copy();
  return python::text(python::without_gil([&](PyThreadState*&) {
    const wallet::WalletKey used = std::move(copy);
    return used.sign_personal_message(text);
  }));
}

/// Without the decoder's error, whose context and frames hold the secret.
Ref decoded_secret(PyObject* encoded) {
  Ref secret;
  std::optional<python::Error> failure = python::caught([&] {
    secret = python::call_method(python::global(names::base64).get(), names::b64decode, {encoded});
  });
  if (!failure) return secret;
  if (python::tells_of_misuse(*failure)) failure = python::noted(std::move(*failure), notes::kLoginAnswer);
  python::raise_bare(std::move(*failure));
}

}  // namespace

Ref AuthManager::do_auth_flow() {
  const Ref address = get(Field::kWalletAddress);
  const Ref method = python::text("POST");
  const Ref most_attempts = python::global(names::auth_flow_http_max_attempts);
  const auto post = [&](const char* endpoint, const Ref& body) {
    return python::call_method(object(), names::request_with_retry,
                               {method.get(), python::text(endpoint).get()},
                               {{names::body_dict, body.get()}, {names::max_attempts, most_attempts.get()}});
  };

  if (is_true(Field::kRegisterWallet)) {
    Ref body = python::dictionary({{names::wallet_address, address.get()}});
    const Ref invite = get(Field::kInviteCode);
    if (!invite.is_none()) python::set_entry(body.get(), names::invite_code, invite.get());
    post(path::kRegister, body);
    set(Field::kRegistrationAcknowledged, Ref::boolean(true));
  }

  const Ref most_cycles = python::global(names::auth_flow_challenge_max_cycles);
  for (long cycle = python::long_value(most_cycles.get()); cycle > 0; --cycle) {
    raise_if_closing(object());
    const Ref challenge =
        post(path::kChallenge, python::dictionary({{names::wallet_address, address.get()}}));
    const Ref offer = std::move(python::unpack3(challenge.get())[2]);
    raise_if_closing(object());
    const Ref challenge_id = member_of(offer, names::challenge_id);
    const Ref message = member_of(offer, names::message);
    if (key == nullptr) raise_auth_error(reason::kManagerClosed);
    const Ref signature = sign(*key, message.get());
    const Ref body =
        python::dictionary({{names::challenge_id, challenge_id.get()}, {names::signature, signature.get()}});
    const Ref verification = python::call_method(object(), names::request_with_retry,
                                                 {method.get(), python::text(path::kVerify).get()},
                                                 {{names::body_dict, body.get()},
                                                  {names::is_verify, Py_True},
                                                  {names::max_attempts, most_attempts.get()}});
    const auto [status, headers, grant] = python::unpack3(verification.get());
    if (is_stale_challenge(status.get())) continue;
    Ref token = member_of(grant, names::token);
    Ref expires_at = member_of(grant, names::expires_at);
    const Ref encoded_secret = member_of(grant, names::wallet_secret);
    Ref secret = decoded_secret(encoded_secret.get());
    return python::triple(std::move(token), std::move(expires_at), std::move(secret));
  }
  const Ref error = new_network_error("stale authentication challenge after ", most_cycles.get());
  python::add_note(error.get(), notes::kStaleChallenge);
  python::raise(error.get());
}

Ref AuthManager::do_auth_flow_matching_pending_era() {
  static constexpr int kMostFlows = 2;
  for (int flow = 0; flow < kMostFlows; ++flow) {
    auto [token, expires_at, secret] = python::unpack3(call_own(names::do_auth_flow).get());
    Ref pending_era;
    {
      const HeldLock held(*this);
      pending_era = held.get(Field::kPendingEraNumber);
    }
    if (pending_era.is_none() || meets_era(token.get(), pending_era.get())) {
      return python::triple(std::move(token), std::move(expires_at), std::move(secret));
    }
  }
  raise_auth_error(reason::kEraMismatch);
}

}  // namespace tessaline::auth
