#pragma once

#include <memory>
#include <string>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/tls_sessions.hpp"
#include "tessaline/auth/http/trusted_roots.hpp"

namespace tessaline::auth::http {

/// The trust under which TLS connections are made: the roots of one configuration as they were read, and the
/// sessions that can be resumed under them. A connection is used by requests of the very same object only, so
/// when what was read changes, there is a new one, and nothing of the old one serves any more.
///
///   missing --in_force--> current --file or directory changes--> replaced: lives on with its connections
///
/// A forked child makes its own: a thread that is not in the child may hold a lock of the parent's store, and
/// two processes that resume one session would tell an onlooker that they are one.
class Trust {
 public:
  /// The trust for this configuration as it is now, shared by all who ask. Throws TransportFailure
  /// (kTrustStore, kDescriptors) and std::bad_alloc.
  static std::shared_ptr<const Trust> in_force(const TrustStore& places);

  /// Once, before the first fork that is to be heard of.
  static void prepare() noexcept;

  /// In a forked child: leaves all that there is to the parent.
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
