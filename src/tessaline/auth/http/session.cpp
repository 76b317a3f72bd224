#include "tessaline/auth/http/session.hpp"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <new>

#include "tessaline/auth/http/descriptors.hpp"
#include "tessaline/auth/http/process.hpp"

namespace tessaline::auth::http {
namespace {

constexpr std::size_t kUsualSockets = 8;

[[noreturn]] void throw_no_handle() {
  if (const int shortage = descriptor_shortage(); shortage != 0) {
    throw TransportFailure(FailureKind::kDescriptors, "no descriptor is left for a connection",
                           {.os_errno = shortage});
  }
  throw std::bad_alloc();
}

Remains examine(curl_socket_t descriptor) noexcept {
  Remains remains;
  tcp_info info{};
  socklen_t size = sizeof info;
  if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) == 0) {
    remains.received_bytes = info.tcpi_bytes_received;
  }
  char byte = 0;
  const ssize_t waiting = recv(descriptor, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT);
  remains.ended = waiting == 0 || (waiting < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
  return remains;
}

}  // namespace

Session::Session() : generation_(process::generation()) {
  sockets_.reserve(kUsualSockets);
  multi_ = curl_multi_init();
  if (multi_ == nullptr || curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 1L) != CURLM_OK) {
    curl_multi_cleanup(multi_);
    throw_no_handle();
  }
}

Session::~Session() {
  curl_multi_cleanup(multi_);
}

bool Session::belongs_to_this_process() const noexcept {
  return generation_ == process::generation();
}

CURLcode Session::track_sockets_of(CURL* easy) noexcept {
  const CURLcode code = curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &Session::close_socket);
  return code == CURLE_OK ? curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this) : code;
}

void Session::begin_request() noexcept {
  out_of_memory_ = false;
  open_errno_ = 0;
  closed_ = {};
  tls.sight = {};
}

Remains Session::remains() const noexcept {
  const std::lock_guard lock(process::mutex());
  return sockets_.empty() ? closed_ : examine(sockets_.back());
}

bool Session::shut_down() const noexcept {
  const std::lock_guard lock(process::mutex());
  for (const curl_socket_t descriptor : sockets_) shutdown(descriptor, SHUT_RDWR);
  return !sockets_.empty();
}

bool Session::is_quiet() const noexcept {
  if (tls.holds_back()) return false;
  return std::all_of(sockets_.begin(), sockets_.end(), [](curl_socket_t descriptor) {
    char byte = 0;
    const ssize_t waiting = recv(descriptor, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT);
    return waiting < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  });
}

void Session::abandon() noexcept {
  for (const curl_socket_t descriptor : sockets_) close(descriptor);
  sockets_.clear();
}

curl_socket_t Session::open_socket(void* session, curlsocktype, curl_sockaddr* address) noexcept {
  auto& self = *static_cast<Session*>(session);
  // A fork happens before or after, never between, so the child closes every socket that it inherits.
  const std::lock_guard lock(process::mutex());
  const curl_socket_t descriptor =
      socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (descriptor < 0) {
    self.open_errno_ = errno;
    return CURL_SOCKET_BAD;
  }
  try {
    self.sockets_.push_back(descriptor);
  } catch (const std::bad_alloc&) {
    close(descriptor);
    self.out_of_memory_ = true;
    return CURL_SOCKET_BAD;
  }
  return descriptor;
}

int Session::close_socket(void* session, curl_socket_t descriptor) noexcept {
  auto& self = *static_cast<Session*>(session);
  const std::lock_guard lock(process::mutex());
  std::erase(self.sockets_, descriptor);
  self.closed_ = examine(descriptor);
  return close(descriptor);
}

}  // namespace tessaline::auth::http
