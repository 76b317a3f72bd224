#pragma once

/// Closes the connections that nobody uses any more, also when no further request comes.
namespace tessaline::auth::http::idle_reaper {

/// Something is idle. Starts a thread where there is none, which ends once nothing is idle. Under the process
/// mutex. Where no thread can be had, the next call tries again.
void need() noexcept;

/// In a forked child, which has no such thread.
void forget() noexcept;

}  // namespace tessaline::auth::http::idle_reaper
