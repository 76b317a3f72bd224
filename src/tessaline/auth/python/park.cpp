#include "tessaline/auth/python/park.hpp"

#include <unistd.h>

namespace tessaline::auth::python {

void park() noexcept {
  for (;;) pause();
}

}  // namespace tessaline::auth::python
