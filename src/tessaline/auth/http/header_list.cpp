#include "tessaline/auth/http/header_list.hpp"

#include <algorithm>
#include <new>

#include "tessaline/auth/http/text.hpp"

namespace tessaline::auth::http {
namespace {

void append(HeaderList& list, const std::string& line) {
  curl_slist* extended = curl_slist_append(list.get(), line.c_str());
  if (extended == nullptr) throw std::bad_alloc();
  static_cast<void>(list.release());
  list.reset(extended);
}

bool is_framing(std::string_view name) {
  return equal_without_case(name, "content-length") || equal_without_case(name, "transfer-encoding");
}

bool has(const Headers& headers, std::string_view name) {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const auto& field) { return equal_without_case(field.first, name); });
}

}  // namespace

HeaderList make_header_list(const Headers& headers) {
  HeaderList list;
  for (const auto& [name, value] : headers) {
    if (is_framing(name)) continue;
    const bool empty = value.find_first_not_of(" \t\v\f") == std::string::npos;
    append(list, empty ? name + ";" : name + ": " + value);
  }
  // "Name:" removes a field that libcurl would add.
  for (const char* unasked : {"Content-Type", "Expect"}) {
    if (!has(headers, unasked)) append(list, std::string(unasked) + ":");
  }
  return list;
}

}  // namespace tessaline::auth::http
