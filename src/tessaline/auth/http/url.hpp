#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tessaline::auth::http {

/// An absolute http or https URL, and whose server it names.
struct Url {
  std::string text;       ///< as given
  std::string scheme;     ///< lower case
  std::string authority;  ///< as given: host and port
  std::string host;       ///< lower case; an IPv6 address in its brackets
  std::string port;       ///< the scheme's own where the URL names none

  /// "host:port", all that a message may say of a URL.
  std::string peer() const;

  /// The root of the server, in the URL's own spelling.
  std::string root() const { return scheme + "://" + authority; }

  /// What is asked of the server (RFC 9112, section 3.2.1), byte for byte as given: path and query.
  std::string target() const;

  /// Scheme, host and port in one text, equal for two URLs of one server.
  std::string origin() const;
};

/// Throws TransportFailure(kInvalidRequest), with a message that does not repeat the URL.
Url parse_url(std::string text);

/// Where `reference`, found in an answer from `base`, leads; nothing when no request can be sent there.
std::optional<Url> resolve_reference(const Url& base, std::string_view reference);

}  // namespace tessaline::auth::http
