#include "tessaline/auth/python/interior.hpp"

#include <cstdlib>

namespace tessaline::auth::python {
namespace {

constexpr int kNewestTried = 15;

}  // namespace

bool inside_is_known() noexcept {
  return PY_MAJOR_VERSION == 3 && PY_MINOR_VERSION <= kNewestTried &&
         std::getenv("TESSALINE_UNTRIED_PYTHON") == nullptr;
}

}  // namespace tessaline::auth::python
