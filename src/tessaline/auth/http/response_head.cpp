#include "tessaline/auth/http/response_head.hpp"

#include "tessaline/auth/http/text.hpp"

namespace tessaline::auth::http {
namespace {

constexpr std::size_t kMostTrailerBytes = 65'536;
constexpr std::size_t kMostLengthDigits = 18;  // what fits a 64-bit number

std::string_view without_line_end(std::string_view line) {
  if (line.ends_with('\n')) line.remove_suffix(1);
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

}  // namespace

bool ResponseHead::add_line(std::string_view line) {
  line = without_line_end(line);
  if (state_ != State::kFields) {
    if (line.starts_with("HTTP/")) return start(line);
    trailer_bytes_ += line.size();
    return state_ == State::kComplete && trailer_bytes_ <= kMostTrailerBytes;
  }
  if (line.empty()) {
    state_ = State::kComplete;
  } else if (line.front() == ' ' || line.front() == '\t') {
    continue_field(line);
  } else {
    return add_field(line);
  }
  return true;
}

bool ResponseHead::start(std::string_view status_line) {
  constexpr std::string_view kVersion = "HTTP/1.x";
  if (!status_line.starts_with("HTTP/1.") || status_line.size() < kVersion.size()) return false;
  const auto status = status_line.substr(kVersion.size());
  if (status.starts_with(" 101")) return false;  // nobody asked to leave HTTP
  interim_ = status.starts_with(" 1");
  state_ = State::kFields;
  fields_.clear();
  names_.clear();
  length_.clear();
  last_kept_ = false;
  return true;
}

bool ResponseHead::add_field(std::string_view line) {
  const auto colon = line.find(':');
  last_kept_ = false;
  if (colon == std::string_view::npos) return true;
  const auto name = trim_blanks(line.substr(0, colon));
  const auto value = trim_blanks(line.substr(colon + 1));
  if (equal_without_case(name, "content-length") && !accept_length(value)) return false;
  if (!names_.insert(lower_case(name)).second) return true;
  fields_.emplace_back(name, value);
  last_kept_ = true;
  return true;
}

// libcurl passes over a length that it cannot read, and then cannot tell a whole body from a cut one.
bool ResponseHead::accept_length(std::string_view length) {
  const bool readable = !length.empty() && length.size() <= kMostLengthDigits &&
                        length.find_first_not_of("0123456789") == std::string_view::npos;
  if (!readable || (!length_.empty() && length_ != length)) return false;
  length_ = length;
  return true;
}

void ResponseHead::continue_field(std::string_view line) {
  const auto more = trim_blanks(line);
  if (!last_kept_ || more.empty()) return;
  std::string& value = fields_.back().second;
  if (!value.empty()) value += ' ';
  value += more;
}

}  // namespace tessaline::auth::http
