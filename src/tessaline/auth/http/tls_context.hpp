#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

#include "tessaline/auth/http/trust.hpp"

namespace tessaline::auth::http {

/// What was observed of TLS on a connection, in OpenSSL's numbers.
struct TlsSight {
  bool started = false;     ///< a handshake was begun
  unsigned long error = 0;  ///< why TLS ended; 0 if the connection did
  int fatal_alert = -1;     ///< sent by either side (RFC 8446, section 6)
  long verify_code = 0;     ///< of the peer's certificate, as X509_V_ERR_...

  /// Whether the peer closed the connection during TLS, without another error.
  bool hung_up() const noexcept;
  /// OpenSSL's name for the error, as Python writes it: "WRONG_VERSION_NUMBER"; empty if it has none.
  std::string reason() const;
};

/// The TLS state of one session's connections. Outlives them.
struct TlsWatch {
  TlsSight sight;                ///< of the latest connection
  std::vector<const SSL*> open;  ///< to a proxy, and to the server

  /// Whether received data is buffered within TLS, where polling the socket does not show it.
  bool holds_back() const noexcept;
};

/// "unable to get local issuer certificate" for its code.
std::string verify_message(long verify_code);

/// For its lifetime: keeps the errors in this thread's OpenSSL queue, and adds none.
class KeptErrors {
 public:
  KeptErrors() noexcept;
  ~KeptErrors();
  KeptErrors(const KeptErrors&) = delete;
  KeptErrors& operator=(const KeptErrors&) = delete;
};

/// Whether libcurl uses the very OpenSSL that this was linked with. Otherwise libcurl reads the trusted
/// certificates itself, and TLS is neither observed nor resumed.
bool tls_is_shared() noexcept;

/// Sets up a connection that libcurl is about to begin with this trust: verified by its store, resumed from
/// its sessions, saving new ones to them. `peer` is whom the certificate is verified for. `watch` is written
/// while the connection lives. Throws std::bad_alloc.
void bind_context(SSL_CTX* context, std::shared_ptr<const Trust> trust, std::string peer, TlsWatch& watch);

}  // namespace tessaline::auth::http
