#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "tessaline/auth/http/route.hpp"
#include "tessaline/auth/http/tls_context.hpp"

namespace tessaline::auth::http {

/// The state of a connection when it was closed: what libcurl reports of it differs between versions.
struct Remains {
  bool ended = false;                ///< by the peer, with nothing left to read
  std::uint64_t received_bytes = 0;  ///< during its whole life; its end counts as one

  bool said_nothing() const noexcept { return received_bytes <= 1; }
};

/// A libcurl handle that keeps one connection between requests. Used by one thread at a time.
///
///   idle --take--> leased --give back--> idle        destroyed: connections are shut down
///     \--------------\---- fork, in the child ---->  abandoned: never destroyed, never used again
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

  /// Opens a socket and adds it to this session's list; called by libcurl's open-socket callback.
  static curl_socket_t open_socket(void* session, curlsocktype purpose, curl_sockaddr* address) noexcept;

  /// Has the sockets of `easy` removed from the list when they are closed.
  CURLcode track_sockets_of(CURL* easy) noexcept;

  /// Resets what was observed during earlier requests.
  void begin_request() noexcept;

  /// Since then: whether there was no memory to track a socket, why one could not be opened (0: no error),
  /// and the state of the last connection, which may still be open.
  bool ran_out_of_memory() const noexcept { return out_of_memory_; }
  int open_errno() const noexcept { return open_errno_; }
  Remains remains() const noexcept;

  /// Shuts down the open connections in both directions. False if there are none.
  bool shut_down() const noexcept;

  // Below: under the process mutex.

  bool has_connection() const noexcept { return !sockets_.empty(); }

  /// Whether the peer has sent nothing since the last response, nor closed the connection. libcurl considers
  /// a readable idle connection alive, and would parse those bytes as the next response.
  bool is_quiet() const noexcept;

  /// Closes this process's copies of the descriptors without sending anything to the peers.
  void abandon() noexcept;

  bool leased = true;
  Route route;               ///< of the last request
  TimePoint connected_at{};  ///< when its connect began
  TimePoint idle_since{};

  TlsWatch tls;  ///< written by the thread that leases the session

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
