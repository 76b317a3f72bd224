#include "tessaline/auth/http/exchange.hpp"

#include "tessaline/auth/http/attempt.hpp"
#include "tessaline/auth/http/failure.hpp"
#include "tessaline/auth/http/proxy.hpp"
#include "tessaline/auth/http/route.hpp"
#include "tessaline/auth/http/session_pool.hpp"

namespace tessaline::auth::http {
namespace {

/// Through a tunnel nothing but the server answers.
Response checked(Response response, const Hop& hop, const Route& route) {
  const bool in_the_open = route.proxy && route.proxy->speaks_http() && hop.url.scheme == "http";
  if (in_the_open && is_of_the_proxy(response))
    throw refused_by_proxy(*route.proxy, hop.url, response.status);
  return response;
}

}  // namespace

Response exchange(const Hop& hop, const Circumstances& around) {
  const Route route = Route::to(hop.url, around.proxies, around.trust);
  for (bool fresh = false;; fresh = true) {
    if (around.deadline.passed()) throw timed_out(hop.url.peer(), around.deadline);
    const SessionLease lease({route, fresh, around.deadline, around.ticker});
    Attempt attempt(lease.session(), hop, route);
    attempt.prepare(around.deadline);
    if (attempt.run(around.ticker)) return checked(attempt.take_response(), hop, route);
    if (!fresh && attempt.lost_idle_connection()) continue;
    throw failure_from(attempt.fault(), hop.url, around.deadline);
  }
}

}  // namespace tessaline::auth::http
