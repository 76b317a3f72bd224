#pragma once

// How long a manager waits and how often it polls. The contract's own times are in constants.hpp.

namespace tessaline::auth {

/// How long `get_token` waits for the renewal that it has asked for.
inline constexpr double kRefreshDoneSeconds = 10.0;

/// How often `get_token` polls for a new token after the expiry, and the polling interval.
inline constexpr int kLooks = 30;
inline constexpr double kLookSeconds = 0.1;

/// The shortest sleep of the background thread between two checks.
inline constexpr double kSleepSeconds = 1.0;

/// Its polling interval with an injected clock, which may move at any time.
inline constexpr double kInjectedSleepSeconds = 0.05;

/// How long `close` waits for the background thread.
inline constexpr double kJoinSeconds = 1.0;

/// How often to check whether a runner is lost: its thread ended before its first line, or this is a forked
/// child.
inline constexpr double kLostRunnerSeconds = 1.0;

}  // namespace tessaline::auth
