#pragma once

namespace tessaline::auth {

/// How many forks lie between this process and the one that loaded the module. Threads, and locks that they
/// held, do not come along to a child; what was made under another number has to be made anew.
unsigned long process_generation() noexcept;

/// Begins to count. Called once, when the module is executed. Throws std::bad_alloc.
void watch_forks();

}  // namespace tessaline::auth
