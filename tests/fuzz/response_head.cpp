// Heads and trailers of responses, line by line as libcurl passes them on.

#include "tessaline/auth/http/response_head.hpp"

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "check.hpp"
#include "input.hpp"
#include "tessaline/auth/http/text.hpp"

namespace tessaline::fuzz {
namespace {

using auth::http::Headers;
using auth::http::ResponseHead;

bool is_trimmed(std::string_view text) {
  return auth::http::trim_blanks(text) == text;
}

void check_fields(const Headers& fields) {
  std::set<std::string> names;
  for (const auto& [name, value] : fields) {
    CHECK(names.insert(auth::http::lower_case(name)).second);
    CHECK(is_trimmed(name) && is_trimmed(value));
    CHECK(name.find_first_of(":\n") == std::string::npos && value.find('\n') == std::string::npos);
    if (!auth::http::equal_without_case(name, "content-length")) continue;
    const auto digits = value.find_first_not_of("0123456789");
    // A continuation line may follow a validated one.
    CHECK(!value.empty() && (digits == std::string::npos || value.at(digits) == ' '));
  }
}

/// What was parsed, written and parsed again is the same.
void check_round_trip(const Headers& fields) {
  ResponseHead head;
  CHECK(head.add_line("HTTP/1.1 200 OK\r\n"));
  for (const auto& [name, value] : fields) {
    const bool plain_length =
        !auth::http::equal_without_case(name, "content-length") || value.find(' ') == std::string::npos;
    CHECK(head.add_line(name + ":" + value + "\r\n") == plain_length);
    if (!plain_length) return;
  }
  CHECK(head.add_line("\r\n"));
  CHECK(head.complete());
  CHECK(head.take_fields() == fields);
}

void run(Input input) {
  ResponseHead head;
  ResponseHead at_completion;
  while (!input.empty()) {
    const std::string line = std::string(input.until('\n')) + '\n';
    const bool was_complete = head.complete();
    if (!head.add_line(line)) return;
    CHECK(head.begun());
    if (was_complete && line.starts_with("HTTP/")) CHECK(!head.complete());
    if (was_complete && !line.starts_with("HTTP/")) CHECK(head.complete());
    if (!was_complete && head.complete()) at_completion = head;
  }
  if (!head.complete()) return;
  const Headers fields = head.take_fields();
  CHECK(fields == at_completion.take_fields());  // trailers change nothing
  check_fields(fields);
  check_round_trip(fields);
}

}  // namespace
}  // namespace tessaline::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessaline::fuzz::run({data, size});
  return 0;
}
