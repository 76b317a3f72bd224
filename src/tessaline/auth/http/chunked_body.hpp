#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tessaline::auth::http {

/// Decodes the chunked transfer coding (RFC 9112, section 7.1). libcurl parses it too, to find the end of the
/// body, but reports errors only as texts that differ between versions.
class ChunkedBody {
 public:
  /// Appends the content of the next bytes to `body`. False if they are not part of a valid chunked body, or
  /// if its trailers are too long. Throws std::bad_alloc and std::length_error.
  bool add(std::string_view bytes, std::string& body);

  bool complete() const noexcept { return state_ == State::kComplete; }

 private:
  enum class State {
    kSize,
    kExtension,
    kSizeEnd,
    kContent,
    kContentEnd,
    kContentLineEnd,
    kTrailer,
    kComplete
  };

  bool add_unit(char unit);
  bool add_size_digit(char unit);
  bool end_size();

  State state_ = State::kSize;
  std::uint64_t left_ = 0;
  int digits_ = 0;
  std::size_t extension_bytes_ = 0;
  std::size_t trailer_bytes_ = 0;
  std::size_t trailer_line_ = 0;
};

}  // namespace tessaline::auth::http
