#pragma once

#include <curl/curl.h>

#include <memory>
#include <optional>
#include <string>

namespace tessaline::auth::http {

/// libcurl's URL parser. Every member throws std::bad_alloc.
class CurlUrl {
 public:
  CurlUrl();

  /// False if the text is invalid.
  bool set(CURLUPart part, const std::string& text, unsigned flags);

  /// Empty if the URL has no such part.
  std::optional<std::string> get(CURLUPart part, unsigned flags = 0) const;

 private:
  struct Cleanup {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
  };
  std::unique_ptr<CURLU, Cleanup> handle_;
};

}  // namespace tessaline::auth::http
