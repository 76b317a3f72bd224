#include "tessaline/auth/http/ticker.hpp"

#include <algorithm>
#include <utility>

#include "tessaline/auth/http/limits.hpp"
#include "tessaline/auth/http/process.hpp"

namespace tessaline::auth::http {

Ticker::Ticker(const Tick& tick, std::string peer)
    : tick_(tick),
      peer_(std::move(peer)),
      generation_(process::generation()),
      due_(Clock::now() + kTickInterval) {}

std::chrono::milliseconds Ticker::until_due() const {
  if (!tick_) return kTicklessWait;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(due_ - Clock::now());
  return std::max(left, std::chrono::milliseconds(0));
}

void Ticker::call_if_due() {
  if (!tick_ || Clock::now() < due_) return;
  bool go_on = false;
  {
    const process::Outside outside;
    go_on = tick_();
  }
  due_ = Clock::now() + kTickInterval;
  if (generation_ != process::generation()) {
    throw TransportFailure(FailureKind::kReset, "connection to " + peer_ + " was lost in a fork");
  }
  if (!go_on) throw TransportFailure(FailureKind::kInterrupted, "request to " + peer_ + " was interrupted");
}

}  // namespace tessaline::auth::http
