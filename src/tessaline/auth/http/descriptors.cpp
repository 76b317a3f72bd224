#include "tessaline/auth/http/descriptors.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace tessaline::auth::http {

int descriptor_shortage() noexcept {
  const int before = errno;
  int probe[2];
  const bool had = pipe2(probe, O_CLOEXEC) == 0;
  const int why = errno;
  errno = before;
  if (!had) return why == EMFILE || why == ENFILE ? why : 0;
  close(probe[0]);
  close(probe[1]);
  return 0;
}

}  // namespace tessaline::auth::http
