#pragma once

namespace tessaline::auth {

/// The number of forks between this process and the one that loaded the module. Threads, and locks they held,
/// are not in a child; what was made under another number has to be re-created.
unsigned long process_generation() noexcept;

/// Starts counting. Called once, by the module's initialisation. Throws std::bad_alloc.
void watch_forks();

}  // namespace tessaline::auth
