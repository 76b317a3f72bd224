#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/proxy.hpp"
#include "tessaline/auth/http/trust.hpp"
#include "tessaline/auth/http/url.hpp"

namespace tessaline::auth::http {

/// The way to a server: two requests share a connection only if all of this is equal.
struct Route {
  std::string origin;
  std::optional<Proxy> proxy;
  std::shared_ptr<const Trust> trust;  ///< null without TLS

  /// With the current proxies and roots. Throws TransportFailure (kTrustStore, kDescriptors, kProxyRefused)
  /// and std::bad_alloc.
  static Route to(const Url& url, const ProxySettings& proxies, const TrustStore& places);

  bool operator==(const Route& other) const;
};

}  // namespace tessaline::auth::http
