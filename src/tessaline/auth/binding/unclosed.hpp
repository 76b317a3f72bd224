#pragma once

namespace tessaline::auth::binding {

/// At exit, issues a ResourceWarning for each manager that nobody has closed and that still renews its token.
/// Called for every manager, but registered with the first, so that handlers that the program registers later
/// to close its managers run before it.
void watch_for_unclosed_managers();

}  // namespace tessaline::auth::binding
