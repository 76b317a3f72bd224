#pragma once

#include <curl/curl.h>

#include <optional>
#include <string>

#include "tessaline/auth/http/deadline.hpp"
#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/proxy.hpp"
#include "tessaline/auth/http/session.hpp"
#include "tessaline/auth/http/tls_context.hpp"

namespace tessaline::auth::http {

/// What is known of a transfer that failed: libcurl's error numbers, and what was observed.
struct Fault {
  CURLcode code = CURLE_OK;
  long os_errno = 0;
  int open_errno = 0;  ///< why no socket could be opened
  bool answer_begun = false;
  bool head_complete = false;
  bool body_too_large = false;
  long proxy_status = 0;   ///< of the response to CONNECT, if one was sent
  long proxy_error = 0;    ///< CURLPX_..., of a SOCKS proxy
  bool tunnelled = false;  ///< the proxy had connected to the server
  bool over_tls = false;
  std::optional<Proxy> proxy;
  Remains remains;
  TlsSight tls;
};

/// By the table in failure_table.cpp; faults of descriptors and proxies that have no single code come first.
FailureKind kind_of(const Fault& fault);

TransportFailure failure_from(const Fault& fault, const Url& url, const Deadline& deadline);

/// For a response in plain HTTP that the proxy made itself.
TransportFailure refused_by_proxy(const Proxy& proxy, const Url& url, long status);

/// `peer` is "host:port", the only part of the URL in the message.
TransportFailure timed_out(const std::string& peer, const Deadline& deadline, FailureDetail detail = {});

/// Checks a libcurl call that must succeed: throws std::bad_alloc, or TransportFailure(kOther).
void require(CURLcode code);
void require(CURLMcode code);

}  // namespace tessaline::auth::http
