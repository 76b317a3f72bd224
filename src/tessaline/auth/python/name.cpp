#include "tessaline/auth/python/name.hpp"

#include <utility>

#include "tessaline/auth/python/error.hpp"

namespace tessaline::auth::python {
namespace {

const Name* newest = nullptr;

}  // namespace

PyObject* Name::object() const {
  if (object_ == nullptr) {
    object_ = checked(PyUnicode_InternFromString(text_)).release();
    before_ = std::exchange(newest, this);
  }
  return object_;
}

void Name::forget_all() noexcept {
  while (newest != nullptr) {
    const Name* const name = std::exchange(newest, newest->before_);
    drop(std::exchange(name->object_, nullptr));
  }
}

}  // namespace tessaline::auth::python
