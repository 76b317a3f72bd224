// Server URLs in the HTTP client: what is accepted names one server, and always the same.

#include "tessaline/auth/http/url.hpp"

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "check.hpp"
#include "http_properties.hpp"
#include "input.hpp"
#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::fuzz {
namespace {

using auth::http::Url;

std::string_view authority_of(std::string_view text) {
  text.remove_prefix(text.find("://") + 3);
  return text.substr(0, text.find_first_of("/?#"));
}

/// A plain authority is parsed as it is.
void check_plain_authority(const Url& url, std::string_view authority) {
  const auto is_plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
  };
  const auto host = authority.substr(0, authority.find(':'));
  const bool plain = std::all_of(host.begin(), host.end(), is_plain);
  const auto last = host.substr(host.rfind('.') + 1);
  const bool numeric = !last.empty() && last.front() >= '0' && last.front() <= '9';
  if (!plain || numeric) return;
  CHECK(url.host == auth::http::lower_case(host));
  auto port = authority.substr(std::min(host.size() + 1, authority.size()));
  port.remove_prefix(std::min(port.find_first_not_of('0'), port.size()));
  if (!port.empty()) CHECK(url.port == port);
  if (authority.size() <= host.size() + 1) CHECK(url.port == (url.scheme == "https" ? "443" : "80"));
}

void check_accepted(const Url& url, const std::string& text) {
  check_url(url);
  CHECK(url.text == text);
  const auto authority = authority_of(text);
  CHECK(authority.find('@') == std::string_view::npos);
  check_plain_authority(url, authority);

  // An address with escapes is only normalised when it is parsed again.
  if (authority.find('%') != std::string_view::npos) return;
  const Url again = auth::http::parse_url(url.origin() + "/");
  CHECK(again.origin() == url.origin());
}

/// The messages are fixed texts, so none shows anything of the URL.
void check_refused(const auth::http::TransportFailure& failure) {
  static const std::set<std::string_view> kMessages = {
      "URL has no valid host or port",
      "URL holds a blank, a control character or a character outside ASCII",
      "URL is not absolute",
      "URL scheme is neither http nor https",
      "URL names no host",
      "URL holds user information",
  };
  CHECK(failure.kind() == auth::http::FailureKind::kInvalidRequest);
  CHECK(kMessages.contains(failure.what()));
}

void run(Input input) {
  const std::string text(input.rest());
  try {
    check_accepted(auth::http::parse_url(text), text);
  } catch (const auth::http::TransportFailure& failure) {
    check_refused(failure);
  }
}

}  // namespace
}  // namespace tessaline::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessaline::fuzz::run({data, size});
  return 0;
}
