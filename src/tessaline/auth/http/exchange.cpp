#include "tessaline/auth/http/exchange.hpp"

#include <new>

#include "tessaline/auth/http/attempt.hpp"
#include "tessaline/auth/http/failure.hpp"
#include "tessaline/auth/http/session_pool.hpp"

namespace tessaline::auth::http {

Response exchange(const Hop& hop, const TrustStore& trust, const Deadline& deadline, const Tick& tick) {
  for (bool fresh = false;; fresh = true) {
    if (deadline.passed()) throw timed_out(hop.url.peer(), deadline);
    const SessionLease lease(hop.url.origin());
    Attempt attempt(lease.session(), hop);
    attempt.prepare(trust, deadline);
    if (fresh) attempt.use_fresh_connection();
    if (attempt.run(tick)) return attempt.take_response();
    if (!fresh && attempt.lost_idle_connection()) continue;
    throw failure_from(attempt.fault(), hop.url.peer(), deadline);
  }
}

}  // namespace tessaline::auth::http
