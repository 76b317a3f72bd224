#include "tessaline/auth/http/response_head.hpp"

#include "tessaline/auth/http/text.hpp"

namespace tessaline::auth::http {
namespace {

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
    return state_ == State::kComplete;
  }
  if (line.empty()) {
    state_ = State::kComplete;
  } else if (line.front() == ' ' || line.front() == '\t') {
    continue_field(line);
  } else {
    add_field(line);
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
  last_kept_ = false;
  return true;
}

void ResponseHead::add_field(std::string_view line) {
  const auto colon = line.find(':');
  last_kept_ = false;
  if (colon == std::string_view::npos) return;
  const auto name = trim_blanks(line.substr(0, colon));
  if (!names_.insert(lower_case(name)).second) return;
  fields_.emplace_back(name, trim_blanks(line.substr(colon + 1)));
  last_kept_ = true;
}

void ResponseHead::continue_field(std::string_view line) {
  const auto more = trim_blanks(line);
  if (!last_kept_ || more.empty()) return;
  std::string& value = fields_.back().second;
  if (!value.empty()) value += ' ';
  value += more;
}

}  // namespace tessaline::auth::http
