#include "tessaline/auth/http/chunked_body.hpp"

#include <algorithm>

#include "tessaline/auth/http/limits.hpp"

namespace tessaline::auth::http {
namespace {

int hex_value(char unit) {
  if (unit >= '0' && unit <= '9') return unit - '0';
  if (unit >= 'a' && unit <= 'f') return unit - 'a' + 10;
  if (unit >= 'A' && unit <= 'F') return unit - 'A' + 10;
  return -1;
}

}  // namespace

bool ChunkedBody::add(std::string_view bytes, std::string& body) {
  while (!bytes.empty()) {
    if (state_ == State::kComplete) return true;
    if (state_ == State::kContent) {
      const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(left_, bytes.size()));
      body.append(bytes.substr(0, size));
      bytes.remove_prefix(size);
      left_ -= size;
      if (left_ == 0) state_ = State::kContentEnd;
      continue;
    }
    if (!add_unit(bytes.front())) return false;
    bytes.remove_prefix(1);
  }
  return true;
}

bool ChunkedBody::add_unit(char unit) {
  switch (state_) {
    case State::kSize:
      return add_size_digit(unit);
    case State::kExtension:
      if (unit == '\n') return end_size();
      return ++extension_bytes_ <= kMostChunkExtensionBytes;
    case State::kSizeEnd:
      return unit == '\n' && end_size();
    case State::kContentEnd:
      state_ = unit == '\r' ? State::kContentLineEnd : State::kSize;
      return unit == '\r' || unit == '\n';
    case State::kContentLineEnd:
      state_ = State::kSize;
      return unit == '\n';
    case State::kTrailer:
      if (unit == '\n' && trailer_line_ == 0) state_ = State::kComplete;
      trailer_line_ = unit == '\n' ? 0 : trailer_line_ + static_cast<std::size_t>(unit != '\r');
      return ++trailer_bytes_ <= kMostTrailerBytes && trailer_line_ <= kLongestTrailerLine;
    case State::kContent:
    case State::kComplete:
      break;
  }
  return true;
}

bool ChunkedBody::add_size_digit(char unit) {
  const int value = hex_value(unit);
  if (value >= 0) {
    left_ = left_ * 16 + static_cast<std::uint64_t>(value);
    return ++digits_ <= kMostChunkSizeDigits;
  }
  if (digits_ == 0) return false;
  if (unit == '\n') return end_size();
  state_ = unit == '\r' ? State::kSizeEnd : State::kExtension;
  return unit == '\r' || unit == ';' || unit == ' ' || unit == '\t';
}

bool ChunkedBody::end_size() {
  state_ = left_ == 0 ? State::kTrailer : State::kContent;
  digits_ = 0;
  extension_bytes_ = 0;
  return true;
}

}  // namespace tessaline::auth::http
