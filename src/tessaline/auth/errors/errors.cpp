#include "tessaline/auth/errors/errors.hpp"

#include "tessaline/auth/errors/note_texts.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

constinit ErrorTypes types;

Ref auth_error(PyObject* reason_text) {
  return python::call(types.auth, {}, {{names::reason, reason_text}});
}

}  // namespace

const ErrorTypes& error_types() noexcept {
  return types;
}

void set_error_types(const ErrorTypes& made) noexcept {
  types = made;
}

Ref new_auth_error(std::string_view reason_text) {
  Ref error = auth_error(python::text(reason_text).get());
  python::add_note(error.get(), notes::for_reason(reason_text));
  return error;
}

Ref new_recorded_error(PyObject* text, PyObject* failure) {
  Ref error = auth_error(text);
  python::copy_notes(failure, error.get());
  python::add_note_from(error.get(), [failure] {
    return python::checked(PyUnicode_FromFormat(notes::kRecorded, Py_TYPE(failure)->tp_name));
  });
  return error;
}

void raise_auth_error(std::string_view reason_text) {
  python::raise(new_auth_error(reason_text).get());
}

void raise_registration_error(PyObject* server_reason) {
  const Ref error = python::call(types.registration, {server_reason});
  python::best_effort(
      [&] { python::add_note(error.get(), notes::for_reason(python::utf8_of(server_reason))); });
  python::raise(error.get());
}

void raise_profile_error(std::string_view reason_text, const python::Name& extra, PyObject* value) {
  const Ref error = python::call(types.profile, {python::text(reason_text).get()}, {{extra, value}});
  python::add_note(error.get(), notes::for_reason(reason_text));
  python::raise(error.get());
}

Ref new_network_error(const char* prefix, PyObject* attempts) {
  const Ref count = python::text_of(attempts);
  const Ref message = python::checked(PyUnicode_FromFormat("%s%U attempts", prefix, count.get()));
  return python::call(types.network, {message.get()});
}

}  // namespace tessaline::auth
