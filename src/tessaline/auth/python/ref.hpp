#pragma once

#include <Python.h>

#include <utility>

namespace tessaline::auth::python {

/// Releases a reference. May run a finalizer, and so any Python code. Accepts null.
void drop(PyObject* object) noexcept;

/// An owned reference, or none. Move-only; all uses need the GIL.
class Ref {
 public:
  Ref() noexcept = default;

  /// Takes over a reference that the caller owns.
  static Ref steal(PyObject* owned) noexcept { return Ref(owned); }

  /// Makes a new reference to an object that another reference keeps alive.
  static Ref borrow(PyObject* borrowed) noexcept { return Ref(Py_XNewRef(borrowed)); }

  static Ref none() noexcept { return Ref(Py_NewRef(Py_None)); }
  static Ref boolean(bool value) noexcept { return Ref(PyBool_FromLong(value)); }

  Ref(Ref&& other) noexcept : object_(other.release()) {}

  Ref& operator=(Ref&& other) noexcept {
    if (this != &other) drop(std::exchange(object_, other.release()));
    return *this;
  }

  ~Ref() {
    if (object_ != nullptr) drop(object_);
  }

  PyObject* get() const noexcept { return object_; }
  PyObject* release() noexcept { return std::exchange(object_, nullptr); }
  explicit operator bool() const noexcept { return object_ != nullptr; }
  bool is_none() const noexcept { return object_ == Py_None; }

 private:
  explicit Ref(PyObject* owned) noexcept : object_(owned) {}

  PyObject* object_ = nullptr;
};

}  // namespace tessaline::auth::python
