#pragma once

#include <Python.h>

namespace tessaline::auth::python {

/// A Python name, interned at first use and kept until the process ends, or until the module's initialisation
/// fails. Always a global.
class Name {
 public:
  explicit constexpr Name(const char* text) noexcept : text_(text) {}

  Name(const Name&) = delete;
  Name& operator=(const Name&) = delete;

  /// A borrowed reference. Needs the GIL; throws Error if memory is short.
  PyObject* object() const;

  const char* text() const noexcept { return text_; }

  /// Releases every name interned so far.
  static void forget_all() noexcept;

 private:
  const char* text_;
  mutable PyObject* object_ = nullptr;
  mutable const Name* before_ = nullptr;  ///< the name interned before this one
};

}  // namespace tessaline::auth::python
