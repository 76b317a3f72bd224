#include <string_view>
#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/errors/notes.hpp"
#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

constexpr Py_ssize_t kShortestName = 3;
constexpr Py_ssize_t kLongestName = 32;
constexpr long kMaxAttempts = 3;

void require_authenticated(AuthManager& manager) {
  const HeldLock held(manager);
  const State state = held.state();
  if (state == State::kClosed) raise_auth_error(reason::kManagerClosed);
  if (state == State::kUninitialized || state == State::kAuthenticating) {
    raise_auth_error(reason::kNotAuthenticated);
  }
}

/// None and the empty text reset the name; text of spaces only is a name that is too short.
bool is_reset(PyObject* display_name) {
  return display_name == Py_None ||
         (PyUnicode_Check(display_name) && PyUnicode_GET_LENGTH(display_name) == 0);
}

Ref normalized(PyObject* display_name) {
  Ref name = python::call_method(display_name, names::strip);
  const Py_ssize_t size = python::length(name.get());
  const bool allowed = size >= kShortestName && size <= kLongestName &&
                       python::truthy(python::call_method(python::global(names::display_name_re).get(),
                                                          names::fullmatch, {name.get()})
                                          .get());
  if (!allowed) {
    python::raise(python::call(PyExc_ValueError, {python::global(names::display_name_err).get()}).get());
  }
  return name;
}

}  // namespace

Ref AuthManager::set_display_name(PyObject* display_name) {
  require_authenticated(*this);
  const bool reset = is_reset(display_name);
  const Ref name =
      reset ? Ref::none()
            : python::with_note(PyUnicode_Check(display_name) ? std::string_view() : notes::kDisplayNameType,
                                [&] { return normalized(display_name); });
  const Ref token = call_own(names::get_token);
  const Ref bearer = python::add(python::text("Bearer ").get(), python::text_of(token.get()).get());
  const Ref headers = python::dictionary({{names::authorization, bearer.get()}});
  const Ref body = python::dictionary({{names::display_name, name.get()}});
  const Ref answer = python::call_method(object(), names::request_with_retry,
                                         {python::text("POST").get(), python::text(path::kDisplayName).get()},
                                         {{names::body_dict, body.get()},
                                          {names::headers, headers.get()},
                                          {names::max_attempts, python::integer(kMaxAttempts).get()}});
  Ref profile = std::move(python::unpack3(answer.get())[2]);
  if (PyDict_Check(profile.get())) return profile;
  const Ref shown = python::text_of(reset ? display_name : name.get());
  return python::dictionary(
      {{names::wallet_address, get(Field::kWalletAddress).get()}, {names::display_name, shown.get()}});
}

}  // namespace tessaline::auth
