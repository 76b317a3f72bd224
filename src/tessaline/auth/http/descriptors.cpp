#include "tessaline/auth/http/descriptors.hpp"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

namespace tessaline::auth::http {

int descriptor_shortage() noexcept {
  const int before = errno;
  const int probe = eventfd(0, EFD_CLOEXEC);
  const int why = errno;
  errno = before;
  if (probe < 0) return why == EMFILE || why == ENFILE ? why : 0;
  close(probe);
  return 0;
}

}  // namespace tessaline::auth::http
