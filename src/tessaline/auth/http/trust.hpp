#pragma once

#include <memory>
#include <string>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/tls_sessions.hpp"
#include "tessaline/auth/http/trusted_roots.hpp"

namespace tessaline::auth::http {

/// What TLS connections trust: the roots of one configuration as they were read, and the sessions that can be
/// resumed under them. A request only uses connections of the same object: when the files change, there is a
/// new one, and no connection or session of the old one is used again.
///
///   missing --in_force--> current --file or directory changes--> replaced: lives on with its connections
///
/// A forked child makes its own: a lock of the parent's store may be held by a thread that the child does not
/// have, and two processes that resume one session would be linkable on the network.
class Trust {
 public:
  /// The current trust for this configuration, shared by all callers. Throws TransportFailure (kTrustStore,
  /// kDescriptors) and std::bad_alloc.
  static std::shared_ptr<const Trust> in_force(const TrustStore& places);

  /// Called once, before the first fork that `forget_all` must handle.
  static void prepare() noexcept;

  /// In a forked child: abandons everything that the parent made.
  static void forget_all() noexcept;

  explicit Trust(const TrustStore& places) : places_(places), roots_(places) {}

  const TrustStore& places() const noexcept { return places_; }
  const TrustedRoots& roots() const noexcept { return roots_; }
  TlsSessions& sessions() const noexcept { return sessions_; }

 private:
  const TrustStore places_;
  const TrustedRoots roots_;
  mutable TlsSessions sessions_;
};

}  // namespace tessaline::auth::http
