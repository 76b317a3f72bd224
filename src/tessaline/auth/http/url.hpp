#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tessaline::auth::http {

/// An absolute http or https URL.
struct Url {
  std::string text;       ///< as given
  std::string scheme;     ///< lowercase
  std::string authority;  ///< as given: host and port
  std::string host;       ///< lowercase; an IPv6 address in its brackets
  std::string port;       ///< the scheme's default if the URL has none

  /// "host:port", the only part of a URL that messages may show.
  std::string peer() const;

  /// Scheme and authority, as the URL spells them.
  std::string root() const { return scheme + "://" + authority; }

  /// The request target (RFC 9112, section 3.2.1), byte for byte as given: path and query.
  std::string target() const;

  /// Scheme, host and port in one text, equal for two URLs of one server.
  std::string origin() const;
};

/// Throws TransportFailure(kInvalidRequest), with a message that does not repeat the URL.
Url parse_url(std::string text);

/// Resolves `reference` from a response of `base`; empty if no request can be sent there.
std::optional<Url> resolve_reference(const Url& base, std::string_view reference);

}  // namespace tessaline::auth::http
