#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth::http {

struct HeaderListCleanup {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListCleanup>;

/// The fields as libcurl wants them: framing is left to it, and of its own fields those are switched off that
/// nobody asked for. Throws std::bad_alloc.
HeaderList make_header_list(const Headers& headers);

}  // namespace tessaline::auth::http
