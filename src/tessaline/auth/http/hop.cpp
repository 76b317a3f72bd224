#include "tessaline/auth/http/hop.hpp"

#include <optional>
#include <utility>

#include "tessaline/auth/http/failure.hpp"
#include "tessaline/auth/http/proxy.hpp"
#include "tessaline/auth/http/route.hpp"
#include "tessaline/auth/http/session_pool.hpp"
#include "tessaline/auth/http/tls_context.hpp"
#include "tessaline/auth/http/transfer.hpp"

namespace tessaline::auth::http {
namespace {

/// The proxy that may have made the response itself; through a tunnel, only the server can.
const Proxy* answering_proxy(const Hop& hop, const Route& route) {
  const bool may_answer = route.proxy && route.proxy->speaks_http() && hop.url.scheme == "http";
  return may_answer ? &*route.proxy : nullptr;
}

/// One try on a pooled connection; empty if the server had closed a kept connection.
std::optional<Response> try_on(const Route& route, const Hop& hop, const Circumstances& around,
                               const SessionPool::Wish& wish) {
  const SessionLease lease(wish);
  Transfer transfer(lease.session(), hop, route);
  transfer.prepare(around.deadline);
  const bool answered = transfer.run(around.ticker);
  Response response = transfer.take_response();
  // A proxy that refuses a request may close the connection before it has read all of it.
  const bool has_head = answered || transfer.fault().head_complete;
  const Proxy* const proxy = answering_proxy(hop, route);
  if (has_head && proxy != nullptr && is_of_the_proxy(response)) {
    throw refused_by_proxy(*proxy, hop.url, response.status);
  }
  if (answered) return response;
  if (!wish.fresh && transfer.lost_idle_connection()) return std::nullopt;
  throw failure_from(transfer.fault(), hop.url, around.deadline);
}

}  // namespace

Response answer_to(const Hop& hop, const Circumstances& around) {
  const Route route = Route::to(hop.url, around.proxies, around.trust);
  std::optional<KeptErrors> others_errors;  // the program may use the same OpenSSL
  if (route.trust) others_errors.emplace();
  SessionPool::Wish wish{route, false, false, around.deadline, around.ticker};
  for (;;) {
    if (around.deadline.passed()) throw timed_out(hop.url.peer(), around.deadline);
    try {
      if (auto response = try_on(route, hop, around, wish)) return std::move(*response);
      wish.fresh = true;
    } catch (const TransportFailure& failure) {
      // Another request has a connection to this server and will return it to the pool.
      if (wish.patient || failure.kind() != FailureKind::kDescriptors) throw;
      wish.patient = true;
    }
  }
}

}  // namespace tessaline::auth::http
