#pragma once

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth {

/// Where Python's `ssl` module finds trusted certificates by default; SSL_CERT_FILE and SSL_CERT_DIR are
/// honoured and may change at run time. If neither is set and Python has no `ssl`, or that finds no
/// certificate: where the system keeps them.
http::TrustStore default_trust_store();

}  // namespace tessaline::auth
