#include "tessaline/auth/http/deadline.hpp"

#include <algorithm>

namespace tessaline::auth::http {
namespace {

constexpr double kLongestSeconds = 2'000'000;

}  // namespace

Deadline::Deadline(std::optional<std::chrono::duration<double>> timeout, Clock::time_point now) {
  if (!timeout || timeout->count() > kLongestSeconds) return;
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
