#pragma once

// How long a manager waits for what is bound to come. Those of the contract are in constants.hpp.

namespace tessaline::auth {

/// For the renewal that a caller's `get_token` has asked for.
inline constexpr double kRefreshDoneSeconds = 10.0;

/// After the token's expiry `get_token` looks so often, so far apart, for a new one.
inline constexpr int kLooks = 30;
inline constexpr double kLookSeconds = 0.1;

/// The background thread's sleep between two looks at the clock, at least; an injected clock may move at any time.
inline constexpr double kSleepSeconds = 1.0;
inline constexpr double kInjectedSleepSeconds = 0.05;

/// `close` for the background thread.
inline constexpr double kJoinSeconds = 1.0;

/// Between two looks at what may have happened to a runner that says nothing: its thread ended before its
/// first line, or this is the child of a fork.
inline constexpr double kLostRunnerSeconds = 1.0;

}  // namespace tessaline::auth
