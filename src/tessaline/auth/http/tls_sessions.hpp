#pragma once

#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "tessaline/auth/http/openssl_handles.hpp"

namespace tessaline::auth::http {

/// Resumable TLS sessions, by the peer that the certificate was verified for. Any thread may call.
class TlsSessions {
 public:
  struct Resumable {
    TlsSession session;
    std::time_t verified_at = 0;
  };

  /// Keeps the most recent peers, and of each its latest sessions. `verified_at` is when the certificate was
  /// verified; a session from a resumed one inherits it. Throws std::bad_alloc.
  void keep(const std::string& peer, TlsSession session, std::time_t verified_at);

  /// A session to offer to the peer; null if there is none. A TLS 1.3 ticket is used once (RFC 8446, appendix
  /// C.4). Throws std::bad_alloc.
  Resumable take(const std::string& peer);

 private:
  struct Peer {
    std::string name;
    std::vector<Resumable> sessions;  ///< the latest is last
  };

  std::mutex mutex_;
  std::vector<Peer> peers_;  ///< the most recent is last
};

}  // namespace tessaline::auth::http
