#include "tessaline/auth/http/deadline.hpp"

#include <algorithm>

#include "tessaline/auth/http/limits.hpp"

namespace tessaline::auth::http {

Deadline::Deadline(std::optional<std::chrono::duration<double>> timeout, Clock::time_point now) {
  if (!timeout || timeout->count() > kLongestTimeoutSeconds) return;
  seconds_ = timeout->count();
  const bool positive = seconds_ > 0;  // false for NaN as well
  end_ = positive ? now + std::chrono::ceil<Clock::duration>(*timeout) : now;
}

bool Deadline::passed(Clock::time_point now) const noexcept {
  return end_ && now >= *end_;
}

std::chrono::milliseconds Deadline::left(Clock::time_point now) const noexcept {
  if (!end_) return std::chrono::milliseconds::max();
  return std::max(std::chrono::milliseconds(1), std::chrono::ceil<std::chrono::milliseconds>(*end_ - now));
}

}  // namespace tessaline::auth::http
