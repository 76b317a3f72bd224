#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

#include "tessaline/auth/http/trust.hpp"

namespace tessaline::auth::http {

/// What was seen of TLS on a connection, in OpenSSL's numbers.
struct TlsSight {
  bool started = false;     ///< a handshake was begun
  unsigned long error = 0;  ///< why it ended; 0 where the connection did
  int fatal_alert = -1;     ///< sent by either side (RFC 8446, section 6)
  long verify_code = 0;     ///< of the peer's certificate, as X509_V_ERR_...

  /// Whether the connection ended in the middle of TLS, with nothing wrong before.
  bool hung_up() const noexcept;
  /// OpenSSL's name for what went wrong, as Python has it: "WRONG_VERSION_NUMBER"; empty where it has none.
  std::string reason() const;
};

/// The TLS of the connections of one session. Outlives them.
struct TlsWatch {
  TlsSight sight;                ///< of the latest connection
  std::vector<const SSL*> open;  ///< to a proxy, and to the server

  /// Whether something that was received waits within TLS, where no look at the socket finds it.
  bool holds_back() const noexcept;
};

/// "unable to get local issuer certificate" for the code of it.
std::string verify_message(long verify_code);

/// For as long as it lives: what OpenSSL had to complain of on this thread stays, and nothing is added.
class KeptErrors {
 public:
  KeptErrors() noexcept;
  ~KeptErrors();
  KeptErrors(const KeptErrors&) = delete;
  KeptErrors& operator=(const KeptErrors&) = delete;
};

/// Whether libcurl speaks TLS through the very OpenSSL that this was linked with. Where it does not, it reads
/// the trusted certificates itself, and nothing of TLS is seen or resumed.
bool tls_is_shared() noexcept;

/// Makes a connection that libcurl is about to begin one of this trust: verified by its store, resumed from
/// its sessions and offering new ones to them. `peer` is whom the certificate is checked for. `watch` is
/// written while the connection lives. Throws std::bad_alloc.
void bind_context(SSL_CTX* context, std::shared_ptr<const Trust> trust, std::string peer, TlsWatch& watch);

}  // namespace tessaline::auth::http
