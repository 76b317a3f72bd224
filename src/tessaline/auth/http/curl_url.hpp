#pragma once

#include <curl/curl.h>

#include <memory>
#include <optional>
#include <string>

namespace tessaline::auth::http {

/// libcurl's reader of URLs. Every member throws std::bad_alloc.
class CurlUrl {
 public:
  CurlUrl();

  /// False for what is none.
  bool set(CURLUPart part, const std::string& text, unsigned flags);

  /// Nothing where the URL has no such part.
  std::optional<std::string> get(CURLUPart part, unsigned flags = 0) const;

 private:
  struct Cleanup {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
  };
  std::unique_ptr<CURLU, Cleanup> handle_;
};

}  // namespace tessaline::auth::http
