#pragma once

#include <optional>
#include <string>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/url.hpp"

namespace tessaline::auth::http {

/// A proxy that a request goes through.
struct Proxy {
  std::string url;     ///< as it was set; may hold user and password
  std::string scheme;  ///< "http", "https", "socks4", "socks4a", "socks5" or "socks5h"
  std::string host;
  std::string port;

  /// "host:port", all that a message may say of it.
  std::string peer() const { return host + ":" + port; }

  /// An http or https proxy, which is asked in HTTP; the others are asked for connections.
  bool speaks_http() const { return scheme == "http" || scheme == "https"; }
  bool speaks_tls() const { return scheme == "https"; }
};

/// The proxy for this URL; nothing where it is reached directly. Throws TransportFailure(kProxyRefused) for a
/// setting that names no proxy that can be used, with a message that holds no credentials, and
/// std::bad_alloc.
std::optional<Proxy> proxy_for(const Url& url, const ProxySettings& settings);

/// Whether a list of hosts such as "localhost,.example.com,10.0.0.0/8,[::1]" holds the URL's. A name stands
/// for its subdomains too, with or without a dot in front; "name:port" for that port alone; "*" for
/// everything.
bool is_exempt(const Url& url, const std::string& hosts);

/// Whether an answer that came through a proxy in plain HTTP is plainly the proxy's own and not the server's:
/// its status is 407, or it has the field "Proxy-Status" with an error (RFC 9209, section 2.1.1) or the one
/// with which a wide-spread proxy marks its error pages, "X-Squid-Error".
bool is_of_the_proxy(const Response& response);

/// Whether a status of the proxy says that the server cannot be reached now: 429, 502, 503, 504.
bool is_transient_at_a_proxy(long status);

}  // namespace tessaline::auth::http
