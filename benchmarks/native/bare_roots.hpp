#pragma once

#include <openssl/x509.h>

#include <memory>
#include <string>

namespace tessaline::benchmarks {

struct FreeRoots {
  void operator()(X509_STORE* roots) const { X509_STORE_free(roots); }
};

/// Trusted CAs, read once for any number of connections and threads.
using Roots = std::unique_ptr<X509_STORE, FreeRoots>;

/// Those of a PEM file and of a hashed directory, which is searched as needed. Either may be empty: none of
/// that kind. Throws std::runtime_error if the file cannot be used.
Roots read_roots(const std::string& file, const std::string& directory);

}  // namespace tessaline::benchmarks
