#pragma once

#include <openssl/x509.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tessaline::benchmarks {

struct Spent {
  double wall = 0;  ///< seconds, monotonic clock
  double cpu = 0;   ///< seconds of this process, user and system
};

/// POSTs `body` to `url` `loops` times over one easy handle, so over one connection where the server keeps
/// it. Throws std::runtime_error when an exchange fails or is not answered with 200.
Spent time_bare_posts(std::size_t loops, const std::string& url, const std::string& body);

// Below, `roots` are trusted where they are given, or else what SSL_CERT_FILE names and libcurl's own
// directory, which it reads for every connection.

/// GETs `url` `loops` times, after once that does not count, over one easy handle: over as many connections
/// where the server keeps none. Gives the seconds of processor time. Throws std::runtime_error as above.
double time_bare_connections(std::size_t loops, const std::string& url, X509_STORE* roots = nullptr);

/// Posts every body to its URL in turn over an easy handle of its own. Throws std::runtime_error as above.
void post_bare(const std::vector<std::string>& urls, const std::vector<std::string>& bodies,
               X509_STORE* roots = nullptr);

/// `threads` threads at once, each as `post_bare`. Gives the seconds from the common start to the last one's
/// end.
double time_bare_crowd(std::size_t threads, const std::vector<std::string>& urls,
                       const std::vector<std::string>& bodies, X509_STORE* roots = nullptr);

}  // namespace tessaline::benchmarks
