#pragma once

#include <cstddef>
#include <ranges>
#include <span>
#include <vector>

#include "marks.hpp"

namespace tessaline::ctime {

template <typename T>
std::size_t count_secret(std::span<const T> data) {
  return ctime_count_secret(data.data(), data.size_bytes());
}

/// Values that the checker considers secret while they live.
template <typename T>
class Secret {
 public:
  template <std::ranges::input_range Values>
  explicit Secret(const Values& values) : values_(std::ranges::begin(values), std::ranges::end(values)) {
    ctime_mark_secret(values_.data(), size_bytes());
    marked += size_bytes();
  }
  ~Secret() { ctime_mark_public(values_.data(), size_bytes()); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  std::span<const T> values() const { return values_; }

  /// Bytes marked by all objects of this type.
  static inline std::size_t marked = 0;

 private:
  std::size_t size_bytes() const { return values_.size() * sizeof(T); }

  std::vector<T> values_;
};

/// Bytes marked by all objects.
inline std::size_t bytes_marked() {
  return Secret<char>::marked + Secret<char16_t>::marked + Secret<char32_t>::marked +
         Secret<unsigned char>::marked;
}

}  // namespace tessaline::ctime
