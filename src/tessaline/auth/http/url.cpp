#include "tessaline/auth/http/url.hpp"

#include <algorithm>

#include "tessaline/auth/http/curl_url.hpp"
#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/text.hpp"

namespace tessaline::auth::http {
namespace {

[[noreturn]] void refuse(const char* why) {
  throw TransportFailure(FailureKind::kInvalidRequest, why);
}

bool is_visible(char c) {
  return c > ' ' && c < '\x7f';
}

/// The scheme of a reference, in lowercase; empty if it is relative.
std::string scheme_of(std::string_view reference) {
  const auto colon = reference.find(':');
  if (colon == std::string_view::npos) return {};
  std::string scheme = lower_case(reference.substr(0, colon));
  const auto is_letter = [](char c) { return c >= 'a' && c <= 'z'; };
  const auto is_scheme_character = [&](char c) {
    return is_letter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
  };
  const bool valid = !scheme.empty() && is_letter(scheme.front()) &&
                     std::all_of(scheme.begin(), scheme.end(), is_scheme_character);
  return valid ? scheme : std::string();
}

std::string escape_unsendable(std::string_view reference) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string result;
  for (const char c : reference) {
    if (c == '\t' || c == '\r' || c == '\n') continue;
    if (is_visible(c)) {
      result += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      result += {'%', kDigits[byte >> 4U], kDigits[byte & 15U]};
    }
  }
  return result;
}

/// Removes "." and ".." from a path that starts with a slash (RFC 3986, section 5.2.4).
std::string without_dot_segments(std::string_view path) {
  std::string result;
  while (!path.empty()) {
    const auto next = std::min(path.find('/', 1), path.size());
    const std::string_view segment = path.substr(0, next);
    const bool last = next == path.size();
    if (segment == "/..") result.erase(std::min(result.rfind('/'), result.size()));
    const bool stays = segment != "/." && segment != "/..";
    if (stays) result += segment;
    if (!stays && last) result += '/';
    path.remove_prefix(next);
  }
  return result;
}

/// Resolves a relative path with its query (RFC 3986, section 5.2.3).
std::string merge_paths(const Url& base, std::string_view reference) {
  const auto path_size = std::min(reference.find_first_of("?#"), reference.size());
  std::string path(reference.substr(0, path_size));
  if (!path.starts_with('/')) {
    const std::string target = base.target();
    const auto folder = target.substr(0, target.find('?'));
    path.insert(0, folder, 0, folder.rfind('/') + 1);
  }
  return base.root() + without_dot_segments(path) + std::string(reference.substr(path_size));
}

std::string resolve_relative(const Url& base, const std::string& reference) {
  if (reference.empty()) return base.text;
  if (reference.starts_with("//")) return base.scheme + ":" + reference;
  const std::string document = base.text.substr(0, base.text.find('#'));
  if (reference.front() == '#') return document + reference;
  if (reference.front() == '?') return document.substr(0, document.find('?')) + reference;
  return merge_paths(base, reference);
}

std::string resolve(const Url& base, std::string reference) {
  const std::string scheme = scheme_of(reference);
  if (scheme.empty()) return resolve_relative(base, reference);
  const bool has_authority = reference.compare(scheme.size() + 1, 2, "//") == 0;
  if (has_authority || scheme != base.scheme) return reference;
  return resolve_relative(base, reference.substr(scheme.size() + 1));
}

}  // namespace

std::string Url::peer() const {
  return host + ":" + port;
}

std::string Url::origin() const {
  return scheme + "://" + peer();
}

std::string Url::target() const {
  const auto begin = scheme.size() + 3 + authority.size();
  std::string target = text.substr(begin, std::min(text.find('#', begin), text.size()) - begin);
  return target.starts_with('/') ? target : "/" + target;
}

Url parse_url(std::string text) {
  if (!std::all_of(text.begin(), text.end(), is_visible)) {
    refuse("URL holds a blank, a control character or a character outside ASCII");
  }
  const auto separator = text.find("://");
  if (separator == std::string::npos) refuse("URL is not absolute");
  Url url;
  url.scheme = lower_case(std::string_view(text).substr(0, separator));
  if (url.scheme != "http" && url.scheme != "https") refuse("URL scheme is neither http nor https");

  const auto begin = separator + 3;
  const auto end = std::min(text.find_first_of("/?#", begin), text.size());
  const auto authority = std::string_view(text).substr(begin, end - begin);
  if (authority.empty()) refuse("URL names no host");
  if (authority.find('@') != std::string_view::npos) refuse("URL holds user information");

  url.authority = authority;

  CurlUrl read;
  const bool valid = read.set(CURLUPART_URL, url.root() + "/", CURLU_DISALLOW_USER);
  const auto host = valid ? read.get(CURLUPART_HOST) : std::nullopt;
  const auto port = valid ? read.get(CURLUPART_PORT, CURLU_DEFAULT_PORT) : std::nullopt;
  // The host after percent-decoding.
  if (!host || !port || !std::ranges::all_of(*host, is_visible)) refuse("URL has no valid host or port");
  url.host = lower_case(*host);
  if (const auto zone = read.get(CURLUPART_ZONEID)) url.host.insert(url.host.size() - 1, "%" + *zone);
  url.port = *port;
  url.text = std::move(text);
  return url;
}

std::optional<Url> resolve_reference(const Url& base, std::string_view reference) {
  try {
    return parse_url(resolve(base, escape_unsendable(reference)));
  } catch (const TransportFailure&) {
    return std::nullopt;
  }
}

}  // namespace tessaline::auth::http
