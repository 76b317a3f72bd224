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

/// What is known of a transfer that failed: libcurl's numbers, and what was seen besides.
struct Fault {
  CURLcode code = CURLE_OK;
  long os_errno = 0;
  int open_errno = 0;  ///< why no socket could be opened
  bool answer_begun = false;
  bool head_complete = false;
  bool body_too_large = false;
  long proxy_status = 0;   ///< of the answer to CONNECT, where one was needed
  long proxy_error = 0;    ///< CURLPX_..., of a proxy that is asked for connections
  bool tunnelled = false;  ///< a proxy had connected through to the server
  bool over_tls = false;
  std::optional<Proxy> proxy;
  Remains remains;
  TlsSight tls;
};

/// By the table in failure_table.cpp, after what concerns no single code: descriptors and proxies.
FailureKind kind_of(const Fault& fault);

TransportFailure failure_from(const Fault& fault, const Url& url, const Deadline& deadline);

/// For an answer in plain HTTP that a proxy made itself.
TransportFailure refused_by_proxy(const Proxy& proxy, const Url& url, long status);

/// `peer` is "host:port", all that the message says of the URL.
TransportFailure timed_out(const std::string& peer, const Deadline& deadline, FailureDetail detail = {});

/// For a libcurl call that must succeed: throws std::bad_alloc, or TransportFailure(kOther).
void require(CURLcode code);
void require(CURLMcode code);

}  // namespace tessaline::auth::http
