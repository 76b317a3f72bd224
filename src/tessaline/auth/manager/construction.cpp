#include <memory>
#include <utility>

#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/manager/process_generation.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/steps/validation.hpp"

namespace tessaline::auth {
namespace {

Ref threading_object(const python::Name& name) {
  return python::call_method(python::global(names::threading).get(), name);
}

/// The server's URL without trailing slashes: endpoint paths begin with one.
Ref without_trailing_slashes(PyObject* url) {
  return python::call_method(url, names::rstrip, {python::text("/").get()});
}

Ref clock_in_force(PyObject* injected) {
  if (injected != Py_None) return Ref::borrow(injected);
  return python::attribute(python::global(names::time_module).get(), names::wall_clock);
}

Ref transport_in_force(PyObject* injected) {
  if (injected != Py_None) return Ref::borrow(injected);
  return python::global(names::default_http_transport);
}

}  // namespace

void AuthManager::construct(PyObject* private_key_text, PyObject* server_url, PyObject* invite_code,
                            PyObject* register_wallet, PyObject* clock, PyObject* transport) {
  auto parsed = std::make_unique<wallet::WalletKey>(read_constructor_key(private_key_text));
  Ref url = python::call(python::global(names::validate_server_url).get(), {server_url});
  Ref code = python::call(python::global(names::normalize_invite_code).get(), {invite_code});
  Ref address = python::text(parsed->address());
  AttemptRef none_yet = Attempt::make(Attempt::Kind::kProgram, Ref::none());
  wipe_key();
  key = parsed.release();
  generation = process_generation();
  AttemptRef::give_back(std::exchange(attempt, none_yet.release()));

  // No other thread has the manager yet, so no lock is needed.
  const auto store = [this](Field field, Ref value) {
    python::drop(std::exchange(at(field), value.release()));
  };
  store(Field::kWalletAddress, std::move(address));
  store(Field::kServerUrl, without_trailing_slashes(url.get()));
  store(Field::kInviteCode, std::move(code));
  store(Field::kRegisterWallet, Ref::boolean(python::truthy(register_wallet)));
  store(Field::kClock, clock_in_force(clock));
  store(Field::kUsesInjectedClock, Ref::boolean(clock != Py_None));
  store(Field::kTransport, transport_in_force(transport));
  store(Field::kState, Ref::borrow(state_text(State::kUninitialized)));
  store(Field::kLock, new_lock());
  for (const Field field : {Field::kToken, Field::kTokenIat, Field::kTokenExpiry, Field::kWalletSecret,
                            Field::kAuthTime, Field::kAuthEvent, Field::kAuthError, Field::kRefreshThread}) {
    store(field, Ref::none());
  }
  store(Field::kRefreshStop, new_event());
  store(Field::kRefreshEvent, new_event());
  store(Field::kRefreshAt, Ref::none());
  store(Field::kCloseEvent, new_event());
  store(Field::kPermanentRefreshError, Ref::boolean(false));
  store(Field::kRefreshPending, new_event());
  store(Field::kRefreshDone, new_event());
  store(Field::kInTransientBackoff, Ref::boolean(false));
  store(Field::kReauthMode, Ref::none());
  store(Field::kPendingEraNumber, Ref::none());
  store(Field::kRegistrationAcknowledged, Ref::boolean(false));
}

int AuthManager::traverse(visitproc visit, void* arg) const {
  for (PyObject* field : fields) Py_VISIT(field);
  Py_VISIT(dict);
  Py_VISIT(highest_era);
  Py_VISIT(lock.replaced);
  if (const int stop = refresh_threads.traverse(visit, arg)) return stop;
  return attempt == nullptr ? 0 : attempt->traverse(visit, arg);
}

void AuthManager::clear() noexcept {
  for (PyObject*& field : fields) python::drop(std::exchange(field, nullptr));
  for (PyObject** const slot : {&dict, &highest_era, &lock.replaced}) {
    python::drop(std::exchange(*slot, nullptr));
  }
  refresh_threads.clear();
  AttemptRef::give_back(std::exchange(attempt, nullptr));
}

Ref AuthManager::represent() {
  const Ref class_name = python::checked(PyType_GetName(Py_TYPE(object())));
  const auto shown = [this](Field field) {
    return python::text_of(at(field) == nullptr ? Py_None : at(field));
  };
  return python::checked(PyUnicode_FromFormat("<%U address=%U server=%U state=%U>", class_name.get(),
                                              shown(Field::kWalletAddress).get(),
                                              shown(Field::kServerUrl).get(), shown(Field::kState).get()));
}

Ref AuthManager::new_lock() {
  return threading_object(names::lock);
}

Ref AuthManager::new_event() {
  return threading_object(names::event);
}

}  // namespace tessaline::auth
