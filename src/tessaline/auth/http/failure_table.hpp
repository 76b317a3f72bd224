#pragma once

#include <curl/curl.h>

#include "tessaline/auth/http/failure.hpp"

namespace tessaline::auth::http {

/// CURLE_TOO_LARGE, which headers before 8.6 do not name.
inline constexpr auto kCodeTooLarge = static_cast<CURLcode>(100);

/// What the table asks of a fault besides libcurl's code.
enum class Seen {
  kAnything,
  kTimeOut,       ///< the system's error number says so
  kNoRoute,       ///< the same
  kConnectReset,  ///< the same
  kFatalAlert,    ///< TLS ended with an alert, by either side
  kUntrusted,     ///< the peer's certificate was refused
  kHangUp,        ///< the connection ended in the middle of TLS with nothing wrong before
  kTlsInBody,     ///< the head of the answer had come, over TLS
  kAnswer,        ///< an answer had begun
  kLongLine,      ///< more bytes than a line may have
  kProxyAway,     ///< the proxy's reply says that the server cannot be reached
};

struct FailureRow {
  CURLcode code;
  Seen seen;
  FailureKind kind;
  const char* observed;  ///< with which versions of libcurl
};

bool holds(Seen seen, const Fault& fault) noexcept;

/// The first row that fits; kOther where none does.
FailureKind look_up(const Fault& fault) noexcept;

}  // namespace tessaline::auth::http
