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

/// The fields for libcurl, without framing, which libcurl adds itself. Removes the fields that libcurl would
/// add unasked. Throws std::bad_alloc.
HeaderList make_header_list(const Headers& headers);

}  // namespace tessaline::auth::http
