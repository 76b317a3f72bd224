#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tessaline::auth::http {

/// Takes the chunked transfer coding off a body (RFC 9112, section 7.1). libcurl looks at it too, to know
/// where the body ends, but says in words only, and in other ones from version to version, what is wrong with
/// it.
class ChunkedBody {
 public:
  /// Appends the content of the next bytes to `body`. False when they cannot belong to a chunked body, or
  /// when its trailers are too long. Throws std::bad_alloc and std::length_error.
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
