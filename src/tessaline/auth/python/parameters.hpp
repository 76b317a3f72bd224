#pragma once

#include <Python.h>

#include <array>
#include <cstddef>
#include <initializer_list>
#include <span>

namespace tessaline::auth::python {

inline constexpr std::size_t kMostParameters = 8;

/// The arguments of one call in the order of the parameters: borrowed, null if not given.
using Bound = std::array<PyObject*, kMostParameters>;

/// The parameters of a function that Python calls: binds a call's arguments to them, or raises the same
/// TypeError as for a function written in Python. Error texts name the function and its parameters, never a
/// value.
class Parameters {
 public:
  /// `name` is the qualified name without parentheses. The first `positional` parameters may be given by
  /// position or keyword, the first `required` of them must be; the others are optional and keyword-only.
  /// `implicit` is 1 for a method: Python's texts count the instance.
  consteval Parameters(const char* name, std::initializer_list<const char*> parameters,
                       std::size_t positional, std::size_t required, std::size_t implicit)
      : name_(name),
        count_(parameters.size()),
        positional_(positional),
        required_(required),
        implicit_(implicit) {
    std::size_t index = 0;
    for (const char* parameter : parameters) parameters_[index++] = parameter;
  }

  /// Arguments in the vectorcall convention: the values of `keyword_names` follow the positional ones.
  Bound bind(PyObject* const* arguments, Py_ssize_t positional_count, PyObject* keyword_names) const;

  /// Arguments as a tuple and a dict (or null).
  Bound bind(PyObject* arguments, PyObject* keywords) const;

 private:
  void bind_positional(Bound& bound, PyObject* const* arguments, std::size_t given) const;
  void bind_keyword(Bound& bound, PyObject* keyword, PyObject* value) const;
  void require_all(const Bound& bound) const;
  [[noreturn]] void raise_too_many(const Bound& bound, std::size_t given) const;
  [[noreturn]] void raise_missing(std::span<const char* const> missing) const;

  const char* name_;
  std::array<const char*, kMostParameters> parameters_{};
  std::size_t count_;
  std::size_t positional_;
  std::size_t required_;
  std::size_t implicit_;
};

}  // namespace tessaline::auth::python
