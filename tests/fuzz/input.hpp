#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tessaline::fuzz {

/// The bytes of one run, taken from the front.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : left_(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return left_.empty(); }

  std::uint8_t byte() {
    const auto taken = take(1);
    return taken.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(taken.front());
  }

  std::string_view take(std::size_t size) {
    const auto taken = left_.substr(0, size);
    left_.remove_prefix(taken.size());
    return taken;
  }

  /// Up to the next `separator`, which is skipped.
  std::string_view until(char separator) {
    const auto taken = take(std::min(left_.find(separator), left_.size()));
    take(1);
    return taken;
  }

  std::string_view rest() { return take(left_.size()); }

 private:
  std::string_view left_;
};

}  // namespace tessaline::fuzz
