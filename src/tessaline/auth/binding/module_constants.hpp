#pragma once

namespace tessaline::auth::binding {

/// Puts the states, limits, times, reason sets and the display-name rule into the module's namespace, in the
/// order in which the module defines them.
void add_constants();

/// Puts the slot of the process's active manager and its lock into the module's namespace.
void add_active_manager_slot();

}  // namespace tessaline::auth::binding
