#pragma once

/// Closes idle connections after a while, even if no further request comes.
namespace tessaline::auth::http::idle_reaper {

/// To be called under the process mutex when a session becomes idle. Starts the thread if it is not running;
/// it ends when no session is idle. If it cannot be started, the next call tries again.
void need() noexcept;

/// In a forked child, which does not have the thread.
void forget() noexcept;

}  // namespace tessaline::auth::http::idle_reaper
