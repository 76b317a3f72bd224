#include "tessaline/auth/http/url.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <new>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/text.hpp"

namespace tessaline::auth::http {
namespace {

struct UrlCleanup {
  void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlCleanup>;

[[noreturn]] void refuse(const char* why) {
  throw TransportFailure(FailureKind::kInvalidRequest, why);
}

UrlHandle new_handle() {
  UrlHandle handle(curl_url());
  if (!handle) throw std::bad_alloc();
  return handle;
}

bool set_url(const UrlHandle& handle, const std::string& text, unsigned flags) {
  const CURLUcode code = curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), flags);
  if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  return code == CURLUE_OK;
}

std::string part_of(const UrlHandle& handle, CURLUPart part, unsigned flags = 0) {
  char* text = nullptr;
  const CURLUcode code = curl_url_get(handle.get(), part, &text, flags);
  if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLUE_OK) refuse("URL has no valid host or port");
  const std::unique_ptr<char, decltype(&curl_free)> owned(text, curl_free);
  return owned.get();
}

bool is_visible(char c) {
  return c > ' ' && c < '\x7f';
}

/// The scheme that a reference starts with, in lower case; empty when it is a relative one.
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

std::string merge_paths(const std::string& base, const std::string& reference) {
  const UrlHandle handle = new_handle();
  if (!set_url(handle, base, CURLU_PATH_AS_IS) || !set_url(handle, reference, 0)) {
    refuse("reference cannot be resolved");
  }
  return part_of(handle, CURLUPART_URL);
}

std::string resolve_relative(const Url& base, const std::string& reference) {
  if (reference.empty()) return base.text;
  if (reference.starts_with("//")) return base.scheme + ":" + reference;
  const std::string document = base.text.substr(0, base.text.find('#'));
  if (reference.front() == '#') return document + reference;
  if (reference.front() == '?') return document.substr(0, document.find('?')) + reference;
  return merge_paths(document, reference);
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

  const UrlHandle handle = new_handle();
  if (!set_url(handle, text, CURLU_PATH_AS_IS | CURLU_DISALLOW_USER)) refuse("URL has no valid host or port");
  url.host = lower_case(part_of(handle, CURLUPART_HOST));
  // As it stands after its escapes were read.
  if (!std::all_of(url.host.begin(), url.host.end(), is_visible)) refuse("URL has no valid host or port");
  url.port = part_of(handle, CURLUPART_PORT, CURLU_DEFAULT_PORT);
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
