#pragma once

#include <optional>
#include <string>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/url.hpp"

namespace tessaline::auth::http {

/// A proxy that a request goes through.
struct Proxy {
  std::string url;     ///< as configured; may hold user and password
  std::string scheme;  ///< "http", "https", "socks4", "socks4a", "socks5" or "socks5h"
  std::string host;
  std::string port;

  /// "host:port", the only part that messages may show.
  std::string peer() const { return host + ":" + port; }

  /// An http or https proxy, which speaks HTTP; the others are SOCKS proxies.
  bool speaks_http() const { return scheme == "http" || scheme == "https"; }
  bool speaks_tls() const { return scheme == "https"; }
};

/// The proxy for this URL, if any. Throws TransportFailure(kProxyRefused) for an unusable setting, with a
/// message without credentials, and std::bad_alloc.
std::optional<Proxy> proxy_for(const Url& url, const ProxySettings& settings);

/// Whether a list of hosts such as "localhost,.example.com,10.0.0.0/8,[::1]" matches the URL's host. A name
/// also matches its subdomains, with or without a leading dot; "name:port" only that port; "*" everything.
bool is_exempt(const Url& url, const std::string& hosts);

/// Whether a response through a plain HTTP proxy was made by the proxy and not by the server: status 407, a
/// "Proxy-Status" field with an error (RFC 9209, section 2.1.1), or "X-Squid-Error", with which a widely used
/// proxy marks its error pages.
bool is_of_the_proxy(const Response& response);

/// Whether the proxy's status means that the server cannot be reached now: 429, 502, 503, 504.
bool is_transient_at_a_proxy(long status);

}  // namespace tessaline::auth::http
