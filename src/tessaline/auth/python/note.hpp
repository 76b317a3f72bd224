#pragma once

#include <Python.h>

#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/ref.hpp"

// Notes of an exception, which Python shows below its message (PEP 678). Notes are optional: if one cannot be
// made or added, for lack of memory or because the program has replaced `add_note`, the exception is raised
// without it. Only what is not an `Exception`, such as Ctrl-C, is raised in its place.

namespace tessaline::auth::python {

/// Adds the note, unless the exception has it: a stored exception is raised many times.
void add_note(PyObject* exception, PyObject* note);
void add_note(PyObject* exception, std::string_view note);

/// Adds the notes of `source` that are strings.
void copy_notes(PyObject* source, PyObject* exception);

/// Runs `step` and ignores its failure.
template <class Step>
void best_effort(Step&& step) {
  std::optional<Error> failure = caught(std::forward<Step>(step));
  if (failure && !failure->matches(PyExc_Exception)) throw std::move(*failure);
}

/// Adds the note that `make` returns.
template <class Make>
void add_note_from(PyObject* exception, Make&& make) {
  best_effort([&] { add_note(exception, std::forward<Make>(make)().get()); });
}

/// `error`, with the note.
Error noted(Error error, std::string_view note);

/// Raises a new `type(message)` with the note.
[[noreturn]] void raise(PyObject* type, const char* message, std::string_view note);

/// The same in an interpreter that is not the module's: leaves no interned name behind.
[[noreturn]] void raise_apart(PyObject* type, const char* message, std::string_view note);

/// Whether the error is about a value of the wrong type or shape.
bool tells_of_misuse(const Error& error) noexcept;

/// Returns what `body` returns; adds the note to an error of misuse.
template <class Body>
std::invoke_result_t<Body> with_note(std::string_view note, Body&& body) {
  std::invoke_result_t<Body> result{};
  std::optional<Error> failure = caught([&] { result = std::forward<Body>(body)(); });
  if (failure && tells_of_misuse(*failure)) throw noted(std::move(*failure), note);
  if (failure) throw std::move(*failure);
  return result;
}

}  // namespace tessaline::auth::python
