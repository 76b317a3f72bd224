#include "tessaline/auth/http/route.hpp"

namespace tessaline::auth::http {

Route Route::to(const Url& url, const ProxySettings& proxies, const TrustStore& places) {
  Route route{url.origin(), proxy_for(url, proxies), nullptr};
  const bool speaks_tls = url.scheme == "https" || (route.proxy && route.proxy->speaks_tls());
  if (speaks_tls) route.trust = Trust::in_force(places);
  return route;
}

bool Route::operator==(const Route& other) const {
  const bool same_proxy =
      proxy.has_value() == other.proxy.has_value() && (!proxy || proxy->url == other.proxy->url);
  return origin == other.origin && trust == other.trust && same_proxy;
}

}  // namespace tessaline::auth::http
