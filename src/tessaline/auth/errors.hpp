#pragma once

#include <string_view>

#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

/// The component's exception types. Siblings directly under Exception: catching one never catches another.
/// Borrowed, alive until the process ends; null before `make_error_types`.
struct ErrorTypes {
  PyObject* invalid_key = nullptr;
  PyObject* auth = nullptr;
  PyObject* registration = nullptr;
  PyObject* profile = nullptr;
  PyObject* network = nullptr;
};

const ErrorTypes& error_types() noexcept;

/// Creates the types for `module` and puts them into its namespace. Called once, when the module is executed.
void make_error_types(PyObject* module);

/// A new `AuthError(reason=…)`.
python::Ref new_auth_error(std::string_view reason);

/// The same with the reason given as the host's text.
python::Ref new_auth_error(PyObject* reason_text);

[[noreturn]] void raise_auth_error(std::string_view reason);

/// NetworkError(`prefix` + `attempts` + " attempts").
[[noreturn]] void raise_network_error(const char* prefix, PyObject* attempts);

}  // namespace tessaline::auth
