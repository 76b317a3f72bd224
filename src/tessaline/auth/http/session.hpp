#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "tessaline/auth/http/route.hpp"
#include "tessaline/auth/http/tls_context.hpp"

namespace tessaline::auth::http {

/// What was left of a connection when it was closed: what libcurl reports of it differs from version to
/// version.
struct Remains {
  bool ended = false;                ///< by the peer, with nothing left to read
  std::uint64_t received_bytes = 0;  ///< over the whole of its life; the end of it counts as one; 0 where unknown

  bool said_nothing() const noexcept { return received_bytes <= 1; }
};

/// A libcurl handle that keeps one connection from request to request. Used by one thread at a time.
///
///   idle --take--> leased --give back--> idle        destroyed: connections are closed politely
///     \--------------\---- fork, in the child ---->  abandoned: never destroyed, never touched again
class Session {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// Throws std::bad_alloc, and TransportFailure(kDescriptors).
  Session();
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  CURLM* multi() const noexcept { return multi_; }

  /// False in a child that was forked while this session existed.
  bool belongs_to_this_process() const noexcept;

  /// Opens a socket and keeps it in this session's list; what libcurl's open-socket callback is to do.
  static curl_socket_t open_socket(void* session, curlsocktype purpose, curl_sockaddr* address) noexcept;

  /// Has the sockets opened for `easy` taken off the list when they are closed.
  CURLcode track_sockets_of(CURL* easy) noexcept;

  /// Forgets what was seen of earlier requests.
  void begin_request() noexcept;

  /// Since then: whether a socket could not be tracked for want of memory, why one could not be opened (0:
  /// each could), and what was left of the last connection, which may still be open.
  bool ran_out_of_memory() const noexcept { return out_of_memory_; }
  int open_errno() const noexcept { return open_errno_; }
  Remains remains() const noexcept;

  /// Ends what connections are open, in both directions. False where there are none.
  bool shut_down() const noexcept;

  // Below: under the process mutex.

  bool has_connection() const noexcept { return !sockets_.empty(); }

  /// Whether its peers have sent nothing since the last answer, and no end of the connection either. libcurl
  /// takes a readable idle connection for a living one, and what waits there for the next answer.
  bool is_quiet() const noexcept;

  /// Closes this process's copies of the descriptors, and says nothing to the peers.
  void abandon() noexcept;

  bool leased = true;
  Route route;               ///< of the last request
  TimePoint connected_at{};  ///< when that began to connect
  TimePoint idle_since{};

  TlsWatch tls;  ///< written by the thread that has the lease

 private:
  static int close_socket(void* session, curl_socket_t descriptor) noexcept;

  const unsigned long generation_;
  std::vector<curl_socket_t> sockets_;
  Remains closed_;
  bool out_of_memory_ = false;
  int open_errno_ = 0;
  CURLM* multi_ = nullptr;
};

}  // namespace tessaline::auth::http
