#pragma once

#include <chrono>
#include <optional>

namespace tessaline::auth::http {

/// When a whole request must be complete. Made from a time-out; one too long for libcurl counts as none.
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Deadline(std::optional<std::chrono::duration<double>> timeout,
                    Clock::time_point now = Clock::now());

  bool bounded() const noexcept { return end_.has_value(); }
  bool passed(Clock::time_point now = Clock::now()) const noexcept;

  /// The remaining time, at least one millisecond: zero would mean "no limit" to libcurl.
  std::chrono::milliseconds left(Clock::time_point now = Clock::now()) const noexcept;

  /// As passed by the caller, for messages.
  double seconds() const noexcept { return seconds_; }

 private:
  std::optional<Clock::time_point> end_;
  double seconds_ = 0;
};

}  // namespace tessaline::auth::http
