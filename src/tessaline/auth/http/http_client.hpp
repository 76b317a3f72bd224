#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tessaline::auth::http {

/// Header fields in order. Names and values are bytes (ISO 8859-1); names keep their spelling.
using Headers = std::vector<std::pair<std::string, std::string>>;

/// Where certificates are trusted from, as the host's TLS library states it. Empty: none of that kind.
struct TrustStore {
  std::string ca_file;
  std::string ca_directory;
};

struct Request {
  std::string method;
  std::string url;  ///< absolute, http or https; sent as given
  Headers headers;
  std::optional<std::string> body;
  std::optional<std::chrono::duration<double>>
      timeout;  ///< of the whole request, redirects included; none: no bound
  TrustStore trust;
};

/// Longest body that is taken of an answer, which is some kilobytes.
inline constexpr std::size_t kMostBodyBytes = std::size_t{64} << 20U;

struct Response {
  int status = 0;
  Headers headers;  ///< of the final response; of repeated names (compared without case) the first
  std::string body;
};

enum class FailureKind {
  kInvalidRequest,  ///< URL, scheme, method or a header field cannot be sent; nothing was
  kUnresolvable,    ///< host (or proxy) name
  kRefused,
  kUnreachable,  ///< network or host
  kReset,        ///< dropped by the peer: while connecting, sending, reading, or before an answer
  kTruncated,    ///< the body ended before its announced length
  kTimedOut,
  kCertificate,  ///< the peer's certificate or host name is not acceptable
  kTls,
  kMalformedResponse,  ///< what came back is not HTTP
  kInterrupted,        ///< the tick asked to stop
  kOther,
};

/// Says what failed and against which host; never holds headers, bodies, paths or credentials.
class TransportFailure : public std::runtime_error {
 public:
  TransportFailure(FailureKind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  FailureKind kind() const noexcept { return kind_; }

 private:
  FailureKind kind_;
};

/// Called at least five times a second while a request waits; false ends the request with kInterrupted. May
/// fork: the parent's request goes on, the child's fails with kReset. May perform requests itself.
using Tick = std::function<bool()>;

/// Performs one request. Blocks the calling thread; any number of threads may call at once. Connections and
/// handles are kept and reused by later calls of any thread of this process, never by a forked child.
///
/// Every HTTP status is a Response. Throws TransportFailure, std::bad_alloc, and what the tick throws. Once
/// the process is exiting, a thread that is in here, or comes, does not return.
Response perform(const Request& request, const Tick& tick = {});

}  // namespace tessaline::auth::http
