#include "tessaline/auth/http/proxy.hpp"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

#include "tessaline/auth/http/curl_url.hpp"
#include "tessaline/auth/http/text.hpp"

namespace tessaline::auth::http {
namespace {

constexpr std::array<std::string_view, 6> kSchemes = {"http",    "https",  "socks4",
                                                      "socks4a", "socks5", "socks5h"};

[[noreturn]] void refuse(const std::string& why) {
  throw TransportFailure(FailureKind::kProxyRefused, why, {.through_proxy = true});
}

/// Some versions of libcurl connect without the proxy if they cannot decode its user or password.
bool is_sendable(const CurlUrl& url, CURLUPart part) {
  if (!url.get(part)) return true;
  const auto decoded = url.get(part, CURLU_URLDECODE);
  return decoded && std::ranges::none_of(*decoded, [](unsigned char c) { return c < ' '; });
}

Proxy parse(const std::string& text) {
  CurlUrl url;
  constexpr unsigned kFlags = CURLU_NON_SUPPORT_SCHEME | CURLU_GUESS_SCHEME;
  Proxy proxy;
  // Otherwise libcurl guesses the scheme from the host name.
  const std::string whole = text.find("://") == std::string::npos ? "http://" + text : text;
  proxy.url = whole;
  const bool valid = url.set(CURLUPART_URL, whole, kFlags);
  const std::optional<std::string> host = valid ? url.get(CURLUPART_HOST) : std::nullopt;
  // An unescaped slash in a password would end the authority, and the password would be parsed as the port.
  const bool all_read =
      whole.find('@', whole.find_first_of("/?#", whole.find("://") + 3)) == std::string::npos;
  if (!host || !all_read || !is_sendable(url, CURLUPART_USER) || !is_sendable(url, CURLUPART_PASSWORD)) {
    refuse("proxy that the environment names cannot be understood");
  }
  proxy.scheme = lower_case(url.get(CURLUPART_SCHEME).value_or("http"));
  proxy.host = *host;
  // libcurl's defaults.
  proxy.port = url.get(CURLUPART_PORT).value_or(proxy.speaks_tls() ? "443" : "1080");
  if (std::ranges::find(kSchemes, proxy.scheme) == kSchemes.end()) {
    refuse("proxy " + proxy.peer() + " has a scheme that is not supported");
  }
  return proxy;
}

std::string_view without_brackets(std::string_view host) {
  if (host.starts_with('[') && host.ends_with(']')) return host.substr(1, host.size() - 2);
  return host;
}

std::string_view without_last_dot(std::string_view name) {
  if (name.ends_with('.')) name.remove_suffix(1);
  return name;
}

/// An address in network byte order.
struct Address {
  int family = AF_UNSPEC;
  std::array<unsigned char, sizeof(in6_addr)> bytes{};

  std::size_t bits() const { return family == AF_INET ? 32 : 128; }
};

Address address_of(std::string_view text) {
  Address address;
  const std::string terminated(text);
  for (const int family : {AF_INET, AF_INET6}) {
    if (inet_pton(family, terminated.c_str(), address.bytes.data()) == 1) address.family = family;
    if (address.family != AF_UNSPEC) break;
  }
  return address;
}

bool share_prefix(const Address& left, const Address& right, std::size_t bits) {
  const std::size_t whole = bits / 8;
  if (std::memcmp(left.bytes.data(), right.bytes.data(), whole) != 0) return false;
  const unsigned mask = (0xff00U >> (bits % 8)) & 0xffU;
  return mask == 0 || ((left.bytes[whole] ^ right.bytes[whole]) & mask) == 0;
}

bool holds_address(std::string_view network, const Address& address) {
  const auto slash = network.find('/');
  const Address base = address_of(without_brackets(network.substr(0, slash)));
  if (base.family != address.family) return false;
  std::size_t bits = base.bits();
  if (slash != std::string_view::npos) {
    const auto length = network.substr(slash + 1);
    const auto [end, error] = std::from_chars(length.data(), length.data() + length.size(), bits);
    if (error != std::errc() || end != length.data() + length.size() || bits > base.bits()) return false;
  }
  return share_prefix(base, address, bits);
}

bool holds_name(std::string_view domain, std::string_view name) {
  if (domain.starts_with('.')) domain.remove_prefix(1);
  domain = without_last_dot(domain);
  if (domain.empty() || domain.size() > name.size()) return false;
  const auto start = name.size() - domain.size();
  return equal_without_case(name.substr(start), domain) && (start == 0 || name[start - 1] == '.');
}

bool holds(std::string_view entry, const Url& url) {
  if (entry == "*") return true;
  const std::string_view host = without_last_dot(without_brackets(url.host));
  const Address address = address_of(host);
  if (address.family != AF_UNSPEC && holds_address(entry, address)) return true;
  const auto colon = entry.rfind(':');
  const bool has_port = colon != std::string_view::npos && colon + 1 < entry.size() &&
                        entry.substr(colon + 1).find_first_not_of("0123456789") == std::string_view::npos;
  if (has_port && (entry.find(':') == colon || entry[colon - 1] == ']')) {
    if (entry.substr(colon + 1) != url.port) return false;
    entry = entry.substr(0, colon);
  }
  return address.family == AF_UNSPEC ? holds_name(entry, host) : has_port && holds_address(entry, address);
}

}  // namespace

bool is_exempt(const Url& url, const std::string& hosts) {
  constexpr std::string_view kBetween = ", \t\r\n";
  std::string_view rest = hosts;
  for (;;) {
    const auto begin = rest.find_first_not_of(kBetween);
    if (begin == std::string_view::npos) return false;
    rest.remove_prefix(begin);
    const auto length = std::min(rest.find_first_of(kBetween), rest.size());
    if (holds(rest.substr(0, length), url)) return true;
    rest.remove_prefix(length);
  }
}

std::optional<Proxy> proxy_for(const Url& url, const ProxySettings& settings) {
  const std::string& setting = url.scheme == "https" ? settings.for_https : settings.for_http;
  if (setting.empty() || is_exempt(url, settings.exempt)) return std::nullopt;
  return parse(setting);
}

bool is_of_the_proxy(const Response& response) {
  constexpr long kProxyAuthenticationRequired = 407;
  if (response.status == kProxyAuthenticationRequired) return true;
  return std::ranges::any_of(response.headers, [](const auto& field) {
    const auto& [name, value] = field;
    if (equal_without_case(name, "x-squid-error")) return true;
    return equal_without_case(name, "proxy-status") && lower_case(value).find("error=") != std::string::npos;
  });
}

bool is_transient_at_a_proxy(long status) {
  return status == 429 || status == 502 || status == 503 || status == 504;
}

}  // namespace tessaline::auth::http
