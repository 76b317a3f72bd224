#pragma once

#include <curl/curl.h>

#include <chrono>
#include <string>
#include <vector>

namespace tessaline::auth::http {

/// A libcurl handle that keeps one connection from request to request. Used by one thread at a time.
///
///   idle --take--> leased --give back--> idle        destroyed: connections are closed politely
///     \--------------\---- fork, in the child ---->  abandoned: never destroyed, never touched again
class Session {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// Throws std::bad_alloc.
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

  /// Whether a socket could not be tracked for want of memory since the last call.
  bool take_out_of_memory() noexcept;

  // Below: under the process mutex.

  bool has_connection() const noexcept { return !sockets_.empty(); }

  /// Whether its peers have sent nothing since the last answer, and no end of the connection either. libcurl
  /// takes a readable idle connection for a living one, and what waits there for the next answer.
  bool is_quiet() const noexcept;

  /// Closes this process's copies of the descriptors, and says nothing to the peers.
  void abandon() noexcept;

  bool leased = true;
  std::string origin;  ///< of the last request
  TimePoint idle_since{};

 private:
  static int close_socket(void* session, curl_socket_t descriptor) noexcept;

  const unsigned long generation_;
  std::vector<curl_socket_t> sockets_;
  bool out_of_memory_ = false;
  CURLM* multi_ = nullptr;
};

}  // namespace tessaline::auth::http
