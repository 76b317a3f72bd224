#pragma once

#include <string>

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth {

/// Where systems keep the certificates that all programs trust: the first existing file below `root`, else
/// the first directory with certificates. Empty if there is none. Throws std::bad_alloc.
http::TrustStore find_system_trust_store(const std::string& root = {});

/// Whether a TLS library would find certificates in that directory: it searches for names like "1a2b3c4d.0".
/// Throws std::bad_alloc.
bool holds_certificates(const std::string& directory);

}  // namespace tessaline::auth
