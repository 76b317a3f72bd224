#pragma once

namespace tessaline::auth::binding {

/// Adds the states, limits, times, reason sets and the display-name rule to the module, in the order in which
/// the module defines them.
void add_constants();

/// Adds the slot of the process's active manager and its lock to the module.
void add_active_manager_slot();

}  // namespace tessaline::auth::binding
