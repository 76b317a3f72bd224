#include "tessaline/auth/http/curl_url.hpp"

#include <new>

namespace tessaline::auth::http {

CurlUrl::CurlUrl() : handle_(curl_url()) {
  if (!handle_) throw std::bad_alloc();
}

bool CurlUrl::set(CURLUPart part, const std::string& text, unsigned flags) {
  const CURLUcode code = curl_url_set(handle_.get(), part, text.c_str(), flags);
  if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  return code == CURLUE_OK;
}

std::optional<std::string> CurlUrl::get(CURLUPart part, unsigned flags) const {
  char* text = nullptr;
  const CURLUcode code = curl_url_get(handle_.get(), part, &text, flags);
  if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLUE_OK) return std::nullopt;
  const std::unique_ptr<char, decltype(&curl_free)> owned(text, curl_free);
  return owned.get();
}

}  // namespace tessaline::auth::http
