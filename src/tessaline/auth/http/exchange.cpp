#include "tessaline/auth/http/exchange.hpp"

#include <optional>

#include "tessaline/auth/http/attempt.hpp"
#include "tessaline/auth/http/failure.hpp"
#include "tessaline/auth/http/proxy.hpp"
#include "tessaline/auth/http/route.hpp"
#include "tessaline/auth/http/session_pool.hpp"
#include "tessaline/auth/http/tls_context.hpp"

namespace tessaline::auth::http {
namespace {

/// The proxy that may have made the answer itself: through a tunnel nothing but the server does.
const Proxy* answering_proxy(const Hop& hop, const Route& route) {
  const bool may_answer = route.proxy && route.proxy->speaks_http() && hop.url.scheme == "http";
  return may_answer ? &*route.proxy : nullptr;
}

}  // namespace

Response exchange(const Hop& hop, const Circumstances& around) {
  const Route route = Route::to(hop.url, around.proxies, around.trust);
  std::optional<KeptErrors> host_errors;  // the host may use the same OpenSSL
  if (route.trust) host_errors.emplace();
  for (bool fresh = false;; fresh = true) {
    if (around.deadline.passed()) throw timed_out(hop.url.peer(), around.deadline);
    const SessionLease lease({route, fresh, around.deadline, around.ticker});
    Attempt attempt(lease.session(), hop, route);
    attempt.prepare(around.deadline);
    const bool answered = attempt.run(around.ticker);
    Response response = attempt.take_response();
    // A proxy may end the connection with the request half read, when it has refused it.
    const bool has_head = answered || attempt.fault().head_complete;
    const Proxy* const proxy = answering_proxy(hop, route);
    if (has_head && proxy != nullptr && is_of_the_proxy(response)) {
      throw refused_by_proxy(*proxy, hop.url, response.status);
    }
    if (answered) return response;
    if (!fresh && attempt.lost_idle_connection()) continue;
    throw failure_from(attempt.fault(), hop.url, around.deadline);
  }
}

}  // namespace tessaline::auth::http
