#pragma once

#include <span>
#include <stdexcept>

namespace tessaline::ctime {

/// One check. `run` throws if it does not do its work, so that no check passes by doing nothing.
struct Check {
  const char* name;
  void (*run)();
};

inline void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

/// The component's functions that process key bytes. None may be reported.
std::span<const Check> component_checks();

/// Functions that leak. Each must be reported.
std::span<const Check> leak_controls();

}  // namespace tessaline::ctime
