#pragma once

#include <curl/curl.h>

#include "tessaline/auth/http/failure.hpp"

namespace tessaline::auth::http {

/// CURLE_TOO_LARGE, which headers before 8.6 do not define.
inline constexpr auto kCodeTooLarge = static_cast<CURLcode>(100);

/// What a row of the table requires besides libcurl's code.
enum class Seen {
  kAnything,
  kTimeOut,       ///< by the system's error number
  kNoRoute,       ///< likewise
  kConnectReset,  ///< likewise
  kFatalAlert,    ///< TLS ended with an alert, by either side
  kUntrusted,     ///< the peer's certificate was refused
  kHangUp,        ///< the peer closed the connection during TLS, without another error
  kTlsInBody,     ///< over TLS, after the head of the response
  kAnswer,        ///< a response had begun
  kLongLine,      ///< more bytes than a line may have
  kProxyAway,     ///< the proxy's reply says that it cannot reach the server
};

struct FailureRow {
  CURLcode code;
  Seen seen;
  FailureKind kind;
  const char* observed;  ///< the versions of libcurl that return this code
};

bool holds(Seen seen, const Fault& fault) noexcept;

/// The first matching row; kOther if none matches.
FailureKind look_up(const Fault& fault) noexcept;

}  // namespace tessaline::auth::http
