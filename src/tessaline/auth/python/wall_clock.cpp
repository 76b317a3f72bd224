#include "tessaline/auth/python/wall_clock.hpp"

#include <dlfcn.h>
#include <time.h>

#include <string_view>

#include "tessaline/auth/python/interior.hpp"

namespace tessaline::auth::python {
namespace {

/// Much longer than the kernel's longest tick (10 ms).
constexpr double kTickSeconds = 1.0;

/// Whether the function is the interpreter's: libraries that fake the time may replace it within the same
/// function object.
bool is_of_interpreter(PyCFunction function) noexcept {
  Dl_info its{};
  Dl_info interpreters{};
  return dladdr(reinterpret_cast<void*>(function), &its) != 0 &&
         dladdr(reinterpret_cast<void*>(&PyTime_TimeRaw), &interpreters) != 0 &&
         its.dli_fbase == interpreters.dli_fbase;
}

}  // namespace

bool learn_wall_clock(PyObject* clock) noexcept {
  if (wall_clock_function != nullptr || !inside_is_known()) return false;
  const PyMethodDef* const definition = reinterpret_cast<PyCFunctionObject*>(clock)->m_ml;
  const bool is_time = std::string_view(definition->ml_name) == "time" && definition->ml_flags == METH_NOARGS;
  if (!is_time || !is_of_interpreter(definition->ml_meth)) return false;
  wall_clock_function = definition->ml_meth;
  return true;
}

bool is_far_ahead(double instant) noexcept {
  timespec tick{};
  if (clock_gettime(CLOCK_REALTIME_COARSE, &tick) != 0) return false;
  const double now = static_cast<double>(tick.tv_sec) + static_cast<double>(tick.tv_nsec) * 1e-9;
  return now + kTickSeconds < instant;
}

}  // namespace tessaline::auth::python
