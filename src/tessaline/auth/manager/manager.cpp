#include "tessaline/auth/manager/manager.hpp"

#include <memory>

#include "tessaline/auth/errors/advice.hpp"
#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/process_generation.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/steps/validation.hpp"

namespace tessaline::auth {
namespace {

std::array<PyObject*, kStateTexts.size()> state_texts{};
PyObject* proactive = nullptr;
PyObject* era_change = nullptr;

PyObject* interned(const char* text) {
  return python::checked(PyUnicode_InternFromString(text)).release();
}

std::size_t index_of(Field field) noexcept {
  return static_cast<std::size_t>(field);
}

Ref threading_object(const python::Name& name) {
  return python::call_method(python::global(names::threading).get(), name);
}

/// The server's address without the slashes at its end, since endpoint paths begin with one.
Ref without_trailing_slashes(PyObject* url) {
  return python::call_method(url, names::rstrip, {python::text("/").get()});
}

Ref clock_in_force(PyObject* injected) {
  if (injected != Py_None) return Ref::borrow(injected);
  return python::attribute(python::global(names::time).get(), names::wall_clock);
}

Ref transport_in_force(PyObject* injected) {
  if (injected != Py_None) return Ref::borrow(injected);
  return python::global(names::default_http_transport);
}

}  // namespace

void make_manager_texts() {
  for (std::size_t index = 0; index < state_texts.size(); ++index)
    state_texts[index] = interned(kStateTexts[index]);
  proactive = interned(kModeProactive);
  era_change = interned(kModeEraChange);
}

PyObject* state_text(State state) noexcept {
  return state_texts[static_cast<std::size_t>(state)];
}
PyObject* proactive_mode() noexcept {
  return proactive;
}
PyObject* era_change_mode() noexcept {
  return era_change;
}

void AuthManager::construct(PyObject* private_key_text, PyObject* server_url, PyObject* invite_code,
                            PyObject* register_wallet, PyObject* clock, PyObject* transport) {
  auto parsed = std::make_unique<wallet::WalletKey>(read_constructor_key(private_key_text));
  Ref url = python::call(python::global(names::validate_server_url).get(), {server_url});
  Ref code = python::call(python::global(names::normalize_invite_code).get(), {invite_code});
  Ref address = python::text(parsed->address());
  wipe_key();
  key = parsed.release();
  generation = process_generation();

  set(Field::kWalletAddress, std::move(address));
  set(Field::kServerUrl, without_trailing_slashes(url.get()));
  set(Field::kInviteCode, std::move(code));
  set(Field::kRegisterWallet, python::truthy(register_wallet));
  set(Field::kClock, clock_in_force(clock));
  set(Field::kUsesInjectedClock, clock != Py_None);
  set(Field::kTransport, transport_in_force(transport));
  set_state(State::kUninitialized);
  set(Field::kLock, new_lock());
  for (const Field field : {Field::kToken, Field::kTokenIat, Field::kTokenExpiry, Field::kWalletSecret,
                            Field::kAuthTime, Field::kAuthEvent, Field::kAuthError, Field::kRefreshThread}) {
    set(field, Ref::none());
  }
  set(Field::kRefreshStop, new_event());
  set(Field::kRefreshEvent, new_event());
  set(Field::kRefreshAt, Ref::none());
  set(Field::kCloseEvent, new_event());
  set(Field::kPermanentRefreshError, false);
  set(Field::kRefreshPending, new_event());
  set(Field::kRefreshDone, new_event());
  set(Field::kInTransientBackoff, false);
  set(Field::kReauthMode, Ref::none());
  set(Field::kPendingEraNumber, Ref::none());
  set(Field::kRegistrationAcknowledged, false);
}

Ref AuthManager::private_key() const {
  get(Field::kState);  // raises before the constructor has run
  if (key == nullptr) return Ref::none();
  Ref made = python::checked(PyUnicode_New(static_cast<Py_ssize_t>(wallet::kKeyHexDigits), 'f'));
  key->write_hex(std::span<char, wallet::kKeyHexDigits>(static_cast<char*>(PyUnicode_DATA(made.get())),
                                                        wallet::kKeyHexDigits));
  return made;
}

void AuthManager::set_private_key(PyObject* value) {
  if (value == Py_None) return wipe_key();
  auto parsed = std::make_unique<wallet::WalletKey>(read_private_key(value));
  wipe_key();
  key = parsed.release();
}

void AuthManager::wipe_key() noexcept {
  delete std::exchange(key, nullptr);
}

Ref AuthManager::get(Field field) const {
  PyObject* const value = fields[index_of(field)];
  if (value == nullptr) {
    PyErr_Format(PyExc_AttributeError, "'AuthManager' object has no attribute '%s'",
                 kFieldNames[index_of(field)]);
    throw python::noted(python::Error::fetch(), advice::kNotConstructed);
  }
  return Ref::borrow(value);
}

void AuthManager::set(Field field, Ref value) noexcept {
  Ref replaced = Ref::steal(std::exchange(at(field), value.release()));
  if (field == Field::kAuthError && replaced) retire(std::move(replaced));
}

bool AuthManager::is_none(Field field) const {
  return get(field).is_none();
}

bool AuthManager::is_true(Field field) const {
  const Ref value = get(field);
  return value.get() == Py_True || (value.get() != Py_False && python::truthy(value.get()));
}

State AuthManager::state() const {
  const Ref value = get(Field::kState);
  for (std::size_t index = 0; index < state_texts.size(); ++index) {
    if (value.get() == state_texts[index]) return static_cast<State>(index);
  }
  for (std::size_t index = 0; index < state_texts.size(); ++index) {
    if (python::equal(value.get(), state_texts[index])) return static_cast<State>(index);
  }
  return State::kUnknown;
}

void AuthManager::set_state(State state) noexcept {
  set(Field::kState, Ref::borrow(state_text(state)));
}

void AuthManager::raise_if_closed() const {
  if (closed()) raise_auth_error(reason::kManagerClosed);
}

void AuthManager::raise_if_pending_era() {
  call_own(names::raise_if_pending_era_locked);
}

void AuthManager::raise_if_renewal_is_hopeless() const {
  if (is_true(Field::kPermanentRefreshError)) raise_auth_error(reason::kTokenExpired);
}

void AuthManager::set_event(Field event) {
  python::set_event(get(event).get());
}
void AuthManager::clear_event(Field event) {
  python::clear_event(get(event).get());
}

void AuthManager::clear_refresh_done() {
  // Cleared under a caller who is about to wait, the signal would be lost to him.
  refresh_done_is_stale = refresh_waiters > 0;
  if (!refresh_done_is_stale) clear_event(Field::kRefreshDone);
}

bool AuthManager::event_is_set(Field event) const {
  return python::truthy(python::call_method(get(event).get(), names::is_set).get());
}

Ref AuthManager::call_own(const python::Name& method, std::initializer_list<PyObject*> arguments) {
  return python::call_method(object(), method, arguments);
}

Ref AuthManager::represent() {
  const Ref class_name = python::checked(PyType_GetName(Py_TYPE(object())));
  const auto shown = [this](Field field) {
    PyObject* const value = fields[index_of(field)];
    return python::text_of(value == nullptr ? Py_None : value);
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
