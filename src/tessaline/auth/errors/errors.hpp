#pragma once

#include <string_view>

#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/name.hpp"
#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

/// The component's exception types. Each derives directly from Exception: catching one never catches another.
/// Borrowed, never freed; null before they are set.
struct ErrorTypes {
  PyObject* invalid_key = nullptr;
  PyObject* auth = nullptr;
  PyObject* registration = nullptr;
  PyObject* profile = nullptr;
  PyObject* network = nullptr;
};

const ErrorTypes& error_types() noexcept;

/// Called once, by the module's initialisation, which creates them.
void set_error_types(const ErrorTypes& made) noexcept;

/// A new `AuthError(reason=…)` with the note for that reason. Notes are added here so that raising the error
/// again adds none.
python::Ref new_auth_error(std::string_view reason);

/// A new `AuthError` for a failure in another thread: its reason is `text`, and it gets the failure's notes.
python::Ref new_recorded_error(PyObject* text, PyObject* failure);

[[noreturn]] void raise_auth_error(std::string_view reason);

/// RegistrationError(`server_reason`).
[[noreturn]] void raise_registration_error(PyObject* server_reason);

/// ProfileError(`reason`, `extra`=`value`).
[[noreturn]] void raise_profile_error(std::string_view reason, const python::Name& extra, PyObject* value);

/// A new NetworkError(`prefix` + `attempts` + " attempts").
python::Ref new_network_error(const char* prefix, PyObject* attempts);

}  // namespace tessaline::auth
