#pragma once

#include <cstddef>

namespace tessaline::auth::http {

/// Bounds on the head of an answer. Each is below the one that some version of libcurl has, so that what is
/// too long ends in the same way with all of them: 300 KiB in all, and 5,000 fields. The one on a line is
/// libcurl's.
inline constexpr std::size_t kLongestHeaderLine = 102'400;
inline constexpr std::size_t kMostHeadBytes = 196'608;
inline constexpr std::size_t kMostFields = 4'000;

}  // namespace tessaline::auth::http
