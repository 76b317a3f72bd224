#pragma once

#include <Python.h>

namespace tessaline::auth::python {

/// A type, and its version when it was last checked.
class SeenType {
 public:
  /// Whether it is that type, and neither it nor a base of it has changed since. False also if that is
  /// unknown.
  bool is_still(const PyTypeObject* type) const noexcept {
    return type == type_ && version_ != 0 && type->tp_version_tag == version_;
  }

  /// To be called after an attribute lookup, which assigns the type its version.
  void see(const PyTypeObject* type) noexcept;

 private:
  const PyTypeObject* type_ = nullptr;
  unsigned int version_ = 0;
};

/// Checks with our own type whether a change changes the version. Called once, by the module's
/// initialisation.
void know_versions(PyTypeObject* type);

}  // namespace tessaline::auth::python
