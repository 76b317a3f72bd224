#pragma once

#include <curl/curl.h>

#include <string>

#include "tessaline/auth/http/deadline.hpp"
#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth::http {

/// What libcurl tells of an exchange that failed.
struct Fault {
  CURLcode code = CURLE_OK;
  long os_errno = 0;
  std::string reason;  ///< libcurl's, never the server's words
  bool answer_begun = false;
  bool head_complete = false;
  bool body_too_large = false;
  long proxy_status = 0;  ///< of the answer to CONNECT, where one was needed
};

FailureKind classify(const Fault& fault);

/// `peer` is "host:port", all that the message says of the URL.
TransportFailure failure_from(const Fault& fault, const std::string& peer, const Deadline& deadline);

TransportFailure timed_out(const std::string& peer, const Deadline& deadline);

/// For a libcurl call that must succeed: throws std::bad_alloc, or TransportFailure(kOther).
void require(CURLcode code);
void require(CURLMcode code);

}  // namespace tessaline::auth::http
