#pragma once

#include <dlfcn.h>

#include <cstdlib>

namespace torture {

/// The function of that name behind this one.
template <typename Function>
Function* next(const char* name) noexcept {
  void* found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) std::abort();
  return reinterpret_cast<Function*>(found);
}

}  // namespace torture

// Checked first by each function that replaces another of the same name.
#define TORTURE_NEXT(name) static auto* const real = torture::next<decltype(name)>(#name)
#define TORTURE_WAY(name, ways) torture::way_to_fail(#name, ways, __builtin_return_address(0))
