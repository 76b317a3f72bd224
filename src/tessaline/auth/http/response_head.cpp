#include "tessaline/auth/http/response_head.hpp"

#include <algorithm>

#include "tessaline/auth/http/limits.hpp"
#include "tessaline/auth/http/text.hpp"

namespace tessaline::auth::http {
namespace {

std::string_view without_line_end(std::string_view line) {
  if (line.ends_with('\n')) line.remove_suffix(1);
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

/// " 200" at the end or before a space.
bool has_status(std::string_view text) {
  constexpr std::size_t kSize = 4;
  if (text.size() < kSize || text.front() != ' ') return false;
  if (text.substr(1, kSize - 1).find_first_not_of("0123456789") != std::string_view::npos) return false;
  return text.size() == kSize || text[kSize] == ' ';
}

/// Whether the list of codings has "chunked", parsed as libcurl does.
bool names_chunked(std::string_view codings) {
  while (!codings.empty()) {
    const auto end = std::min(codings.find(','), codings.size());
    if (equal_without_case(trim_blanks(codings.substr(0, end)), "chunked")) return true;
    codings.remove_prefix(std::min(end + 1, codings.size()));
  }
  return false;
}

}  // namespace

bool ResponseHead::add_line(std::string_view line) {
  bytes_ += line.size();
  if (bytes_ > kMostHeadBytes || ++lines_ > kMostFields) return false;
  line = without_line_end(line);
  if (line.find('\0') != std::string_view::npos || line.find('\r') != std::string_view::npos) return false;
  if (state_ != State::kFields) {
    if (line.starts_with("HTTP/")) return start(line);
    return state_ == State::kComplete;
  }
  if (line.empty()) {
    state_ = State::kComplete;
  } else if (line.front() == ' ' || line.front() == '\t') {
    return continue_field(line);
  } else {
    return add_field(line);
  }
  return true;
}

bool ResponseHead::start(std::string_view status_line) {
  constexpr std::string_view kVersion = "HTTP/1.x";
  if (!status_line.starts_with("HTTP/1.") || status_line.size() < kVersion.size()) return false;
  const auto status = status_line.substr(kVersion.size());
  if (!has_status(status) || status.starts_with(" 101")) return false;  // no upgrade was requested
  interim_ = status.starts_with(" 1");
  state_ = State::kFields;
  fields_.clear();
  names_.clear();
  length_.clear();
  last_kept_ = false;
  chunked_ = false;
  return true;
}

bool ResponseHead::add_field(std::string_view line) {
  const auto colon = line.find(':');
  last_kept_ = false;
  if (colon == std::string_view::npos) return false;
  const auto name = trim_blanks(line.substr(0, colon));
  const auto value = trim_blanks(line.substr(colon + 1));
  if (equal_without_case(name, "content-length") && !accept_length(value)) return false;
  last_frames_ = equal_without_case(name, "content-length") || equal_without_case(name, "transfer-encoding");
  if (equal_without_case(name, "transfer-encoding") && names_chunked(value)) chunked_ = true;
  if (!names_.insert(lower_case(name)).second) return true;
  fields_.emplace_back(name, value);
  last_kept_ = true;
  return true;
}

// libcurl ignores an invalid length, and then cannot detect a truncated body.
bool ResponseHead::accept_length(std::string_view length) {
  const bool readable = !length.empty() && length.size() <= kMostLengthDigits &&
                        length.find_first_not_of("0123456789") == std::string_view::npos;
  if (!readable || (!length_.empty() && length_ != length)) return false;
  length_ = length;
  return true;
}

bool ResponseHead::continue_field(std::string_view line) {
  const auto more = trim_blanks(line);
  if (names_.empty() || last_frames_) return false;
  if (!last_kept_ || more.empty()) return true;
  std::string& value = fields_.back().second;
  if (!value.empty()) value += ' ';
  value += more;
  return true;
}

}  // namespace tessaline::auth::http
