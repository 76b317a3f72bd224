#pragma once

#include <Python.h>

namespace tessaline::auth::python {

/// A type as it stood when it was looked at.
class SeenType {
 public:
  /// Whether it is that type, and neither it nor a base of it has changed since. False also where that cannot
  /// be told.
  bool is_still(const PyTypeObject* type) const noexcept {
    return type == type_ && version_ != 0 && type->tp_version_tag == version_;
  }

  /// Called after an attribute was looked up: a type gets its version then.
  void see(const PyTypeObject* type) noexcept;

 private:
  const PyTypeObject* type_ = nullptr;
  unsigned int version_ = 0;
};

/// Learns, by this type of ours, whether versions tell of changes. Called once, when the module is executed.
void know_versions(PyTypeObject* type);

}  // namespace tessaline::auth::python
