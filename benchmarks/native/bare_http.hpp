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

/// POSTs `body` to `url` `loops` times over one easy handle, and so over one connection if the server keeps
/// it. Throws std::runtime_error if an exchange fails or its status is not 200.
Spent time_bare_posts(std::size_t loops, const std::string& url, const std::string& body);

// Below, `roots` are trusted if given, otherwise what SSL_CERT_FILE names and libcurl's own directory, which
// it reads for every connection.

/// GETs `url` `loops` times, after a warm-up, over one easy handle: over as many connections if the server
/// keeps none. Returns the seconds of processor time. Throws std::runtime_error as above.
double time_bare_connections(std::size_t loops, const std::string& url, X509_STORE* roots = nullptr);

/// Posts every body to its URL in turn over an easy handle of its own. Throws std::runtime_error as above.
void post_bare(const std::vector<std::string>& urls, const std::vector<std::string>& bodies,
               X509_STORE* roots = nullptr);

/// `threads` threads at once, each as `post_bare`. Returns the seconds from the common start to the last
/// one's end.
double time_bare_crowd(std::size_t threads, const std::vector<std::string>& urls,
                       const std::vector<std::string>& bodies, X509_STORE* roots = nullptr);

}  // namespace tessaline::benchmarks
