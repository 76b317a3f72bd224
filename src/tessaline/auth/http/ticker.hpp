#pragma once

#include <chrono>
#include <string>

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth::http {

/// Calls the tick of a request when it is due, wherever the request waits.
class Ticker {
 public:
  using Clock = std::chrono::steady_clock;

  /// `peer` is "host:port", for messages. The tick must outlive this object.
  Ticker(const Tick& tick, std::string peer);

  /// How long the request may sleep before it calls `call_if_due`; long if there is no tick.
  std::chrono::milliseconds until_due() const;

  /// Called inside libcurl; the tick runs outside. Throws what the tick throws, and TransportFailure:
  /// kInterrupted if the tick stops the request, kReset in a child that the tick forked.
  void call_if_due();

  const std::string& peer() const noexcept { return peer_; }

 private:
  const Tick& tick_;
  const std::string peer_;
  const unsigned long generation_;
  Clock::time_point due_;
};

}  // namespace tessaline::auth::http
