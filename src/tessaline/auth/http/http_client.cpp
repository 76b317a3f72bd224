#include "tessaline/auth/http/http_client.hpp"

#include "tessaline/auth/http/deadline.hpp"
#include "tessaline/auth/http/hop.hpp"
#include "tessaline/auth/http/process.hpp"
#include "tessaline/auth/http/redirect.hpp"
#include "tessaline/auth/http/request_check.hpp"
#include "tessaline/auth/http/ticker.hpp"

namespace tessaline::auth::http {

Response perform(const Request& request, const Tick& tick) {
  Hop hop;
  hop.url = check_request(request);
  hop.method = request.method;
  hop.headers = request.headers;
  hop.user_agent = request.user_agent;
  if (request.body) hop.body = &*request.body;

  const Deadline deadline(request.timeout);
  const process::Inside inside;
  Ticker ticker(tick, hop.url.peer());
  RedirectTrail trail;
  for (;;) {
    Response response = answer_to(hop, {request.trust, request.proxies, deadline, ticker});
    std::optional<Hop> next = trail.next(hop, response);
    if (!next) return response;
    hop = std::move(*next);
  }
}

}  // namespace tessaline::auth::http
