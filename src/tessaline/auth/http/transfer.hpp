#pragma once

#include <curl/curl.h>

#include <chrono>
#include <memory>
#include <string>

#include "tessaline/auth/http/chunked_body.hpp"
#include "tessaline/auth/http/deadline.hpp"
#include "tessaline/auth/http/failure.hpp"
#include "tessaline/auth/http/header_list.hpp"
#include "tessaline/auth/http/hop.hpp"
#include "tessaline/auth/http/response_head.hpp"
#include "tessaline/auth/http/route.hpp"
#include "tessaline/auth/http/session.hpp"
#include "tessaline/auth/http/ticker.hpp"

namespace tessaline::auth::http {

struct EasyCleanup {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};

/// One try of a hop on one session. The connection is the session's, the easy handle the transfer's: libcurl
/// 7.88 reads freed memory if a handle is reused and a head starts with a continuation line.
class Transfer {
 public:
  /// All must outlive the transfer. Throws std::bad_alloc, and TransportFailure(kDescriptors).
  Transfer(Session& session, const Hop& hop, const Route& route);
  ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  /// Throws std::bad_alloc.
  void prepare(const Deadline& deadline);

  /// True when there is a response, false when there is a fault. Throws std::bad_alloc, and what the ticker
  /// throws.
  bool run(Ticker& ticker);

  /// After a fault: what has been received.
  Response take_response() noexcept { return std::move(response_); }
  const Fault& fault() const noexcept { return fault_; }

  /// The peer had closed a kept connection before it received this request.
  bool lost_idle_connection() const noexcept { return lost_idle_connection_; }

 private:
  template <typename Value>
  void set(CURLoption option, Value value);

  void set_connection_options(const Deadline& deadline);
  void set_proxy_options();
  void set_trust_options();
  void set_request_options();
  void set_callbacks();

  void reserve_body();
  bool has_final_head() const noexcept;
  bool head_was_all() const noexcept;
  bool ended_with_connection(CURLcode code) const;
  CURLcode drive(Ticker& ticker);
  void end_lingering();
  void wait_for_activity(std::chrono::milliseconds longest);
  CURLcode result() const;
  void examine(CURLcode code);
  long info(CURLINFO which) const;
  bool is_tunnelled() const;
  std::string next_tls_peer();

  static curl_socket_t on_open_socket(void* transfer, curlsocktype purpose, curl_sockaddr* address) noexcept;
  static CURLcode on_tls_context(CURL* easy, void* context, void* transfer) noexcept;
  static std::size_t on_header(char* data, std::size_t size, std::size_t count, void* transfer) noexcept;
  static std::size_t on_body(char* data, std::size_t size, std::size_t count, void* transfer) noexcept;

  Session& session_;
  const Hop& hop_;
  const Route& route_;
  HeaderList headers_;
  std::unique_ptr<CURL, EasyCleanup> easy_;
  ResponseHead head_;
  ChunkedBody chunks_;
  Response response_;
  Fault fault_;
  bool had_connection_ = false;
  int tls_connections_ = 0;
  bool out_of_memory_ = false;
  bool refused_to_reconnect_ = false;
  bool lost_idle_connection_ = false;
};

}  // namespace tessaline::auth::http
