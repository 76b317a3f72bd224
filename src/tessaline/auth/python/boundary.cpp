#include "tessaline/auth/python/boundary.hpp"

#include <algorithm>
#include <cstring>

#include "tessaline/auth/python/park.hpp"

namespace tessaline::auth::python {

void Ending::failed(const char* message) noexcept {
  failed_ = true;
  const std::size_t length = std::min(std::strlen(message), message_.size() - 1);
  std::copy_n(message, length, message_.begin());
  message_[length] = '\0';
}

bool Ending::report() && noexcept {
  if (error_) {
    std::move(*error_).restore();
    return false;
  }
  if (!out_of_memory_ && !failed_) return true;
  door([this] {
    if (out_of_memory_) {
      PyErr_NoMemory();
    } else {
      PyErr_SetString(PyExc_RuntimeError, message_.data());
    }
  });
  return false;
}

}  // namespace tessaline::auth::python
