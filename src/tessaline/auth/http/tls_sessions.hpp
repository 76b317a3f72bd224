#pragma once

#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "tessaline/auth/http/openssl_handles.hpp"

namespace tessaline::auth::http {

/// TLS sessions that servers offered to resume, by whom the certificate was checked for. Any thread may call.
class TlsSessions {
 public:
  struct Resumable {
    TlsSession session;
    std::time_t verified_at = 0;
  };

  /// The peers heard of last are kept, and of each its latest sessions. `verified_at` is when the certificate
  /// was looked at: a session that came of a resumed one is no younger than that. Throws std::bad_alloc.
  void keep(const std::string& peer, TlsSession session, std::time_t verified_at);

  /// One to offer to the peer; null where there is none. A ticket of TLS 1.3 is given out once (RFC 8446,
  /// appendix C.4). Throws std::bad_alloc.
  Resumable take(const std::string& peer);

 private:
  struct Peer {
    std::string name;
    std::vector<Resumable> sessions;  ///< the latest is the last one
  };

  std::mutex mutex_;
  std::vector<Peer> peers_;  ///< the one heard of last is the last one
};

}  // namespace tessaline::auth::http
