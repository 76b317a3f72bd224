#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_set>

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth::http {

/// Collects the fields of the last head from the lines that libcurl passes on: the next head replaces an
/// interim one, and lines after the final head (trailers) are ignored. Rejects invalid and too large heads
/// itself, since versions of libcurl differ in that.
class ResponseHead {
 public:
  /// False if the line cannot be part of an HTTP/1 response.
  bool add_line(std::string_view line);

  bool begun() const noexcept { return state_ != State::kNothing; }
  bool complete() const noexcept { return state_ == State::kComplete; }
  bool interim() const noexcept { return interim_; }
  bool chunked() const noexcept { return chunked_; }
  bool has_length() const noexcept { return !length_.empty(); }
  Headers take_fields() noexcept { return std::move(fields_); }

 private:
  enum class State { kNothing, kFields, kComplete };

  bool start(std::string_view status_line);
  bool add_field(std::string_view line);
  bool accept_length(std::string_view length);
  bool continue_field(std::string_view line);

  State state_ = State::kNothing;
  Headers fields_;
  std::unordered_set<std::string> names_;  // in lowercase
  std::string length_;                     // "Content-Length", if any
  std::size_t bytes_ = 0;                  ///< of all heads
  std::size_t lines_ = 0;
  bool last_kept_ = false;
  bool last_frames_ = false;  ///< the last field determines where the body ends
  bool interim_ = false;
  bool chunked_ = false;
};

}  // namespace tessaline::auth::http
