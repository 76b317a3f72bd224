#pragma once

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

/// Posts every body to its URL in turn over an easy handle of its own, which trusts what SSL_CERT_FILE names,
/// where that is set. Throws std::runtime_error as above.
void post_bare(const std::vector<std::string>& urls, const std::vector<std::string>& bodies);

/// `threads` threads at once, each as `post_bare`. Gives the seconds from the common start to the last one's
/// end.
double time_bare_crowd(std::size_t threads, const std::vector<std::string>& urls,
                       const std::vector<std::string>& bodies);

}  // namespace tessaline::benchmarks
