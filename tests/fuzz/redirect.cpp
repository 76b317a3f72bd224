// Redirects: after a method and a URL, each line is a status, a space and a reference.

#include "tessaline/auth/http/redirect.hpp"

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "check.hpp"
#include "http_properties.hpp"
#include "input.hpp"

namespace tessaline::fuzz {
namespace {

using auth::http::Hop;
using auth::http::Response;
using auth::http::Url;

constexpr int kMostRepeats = 4;
constexpr std::size_t kMostTargets = 10;

const std::string kBody = "{}";
const auth::http::Headers kSent = {{"Authorization", "Bearer t"},
                                   {"content-type", "application/json"},
                                   {"Cookie", "c"},
                                   {"Content-Length", "2"},
                                   {"HOST", "h"},
                                   {"proxy-authorization", "p"},
                                   {"X-Own", "1"}};
const auth::http::Headers kWithoutContent = {{"Authorization", "Bearer t"},
                                             {"Cookie", "c"},
                                             {"HOST", "h"},
                                             {"proxy-authorization", "p"},
                                             {"X-Own", "1"}};
const auth::http::Headers kWithoutOrigin = {{"X-Own", "1"}};

std::optional<Url> parsed(std::string_view text) {
  try {
    return auth::http::parse_url(std::string(text));
  } catch (const auth::http::TransportFailure&) {
    return std::nullopt;
  }
}

/// An address with escapes is only normalised when it is parsed again.
std::string server_of(const Url& url) {
  const auto again = parsed(url.origin() + "/");
  CHECK(again);
  return again->origin();
}

/// A relative reference without an authority cannot leave the server.
bool stays_by_its_form(std::string_view reference) {
  std::string kept;
  for (const char c : reference) {
    if (c != '\t' && c != '\r' && c != '\n') kept += c;
  }
  const std::string_view segment = std::string_view(kept).substr(0, kept.find_first_of("/?#"));
  return segment.find(':') == std::string_view::npos && !kept.starts_with("//");
}

class Trail {
 public:
  explicit Trail(Hop start) : hop_(std::move(start)) {}

  void follow(int status, std::string_view reference) {
    Response response;
    response.status = status;
    response.headers = {{"X-First", "1"}, {"lOCATION", std::string(reference)}};
    const auto next = trail_.next(hop_, response);
    if (!next) return;
    check(status, *next, reference);
    hop_ = *next;
  }

 private:
  void check(int status, const Hop& next, std::string_view reference) {
    check_url(next.url);
    check_method(status, next);
    CHECK(!(hop_.url.scheme == "https" && next.url.scheme == "http"));
    const auto again = parsed(next.url.text);
    CHECK(again && again->origin() == next.url.origin());
    if (stays_by_its_form(reference)) CHECK(server_of(next.url) == server_of(hop_.url));
    CHECK(++visits_[next.url.text] <= kMostRepeats);
    CHECK(visits_.size() <= kMostTargets);

    left_origin_ |= next.url.origin() != hop_.url.origin();
    CHECK(next.headers == (left_origin_ ? kWithoutOrigin : kWithoutContent));
  }

  void check_method(int status, const Hop& next) const {
    const bool reads = hop_.method == "GET" || hop_.method == "HEAD";
    CHECK((status >= 301 && status <= 303) || ((status == 307 || status == 308) && reads));
    CHECK(reads || hop_.method == "POST");
    CHECK(next.method == (hop_.method == "HEAD" ? "HEAD" : "GET"));
    CHECK(next.body == nullptr);
  }

  auth::http::RedirectTrail trail_;
  Hop hop_;
  std::map<std::string, int> visits_;
  bool left_origin_ = false;
};

int number(std::string_view digits) {
  int value = 0;
  for (const char c : digits.substr(0, 3)) {
    if (c >= '0' && c <= '9') value = 10 * value + (c - '0');
  }
  return value;
}

void run(Input input) {
  Hop start;
  start.method = std::string(input.until('\n'));
  const auto base = parsed(input.until('\n'));
  if (!base) return;
  start.url = *base;
  start.headers = kSent;
  start.body = &kBody;
  Trail trail(std::move(start));
  while (!input.empty()) {
    const std::string_view line = input.until('\n');
    const auto blank = std::min(line.find(' '), line.size());
    trail.follow(number(line.substr(0, blank)), line.substr(std::min(blank + 1, line.size())));
  }
}

}  // namespace
}  // namespace tessaline::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessaline::fuzz::run({data, size});
  return 0;
}
