#include "tessaline/native/wall_clock.hpp"

#include <dlfcn.h>
#include <time.h>

#include "tessaline/auth/python/python.hpp"

namespace tessaline::native {
namespace {

namespace python = auth::python;

constinit const python::Name kTime{"time"};

/// The function behind `time.time`. Programs that play with time put another one behind the same object.
PyCFunction known = nullptr;

/// Far more than the kernel's longest tick (10 ms).
constexpr double kTickSeconds = 1.0;

void* library_of(const void* address) noexcept {
  Dl_info found{};
  return dladdr(address, &found) == 0 ? nullptr : found.dli_fbase;
}

/// The interpreter's own, or that of its module, not one that was put in its place before our import.
bool belongs_to(PyCFunction function, PyObject* module) {
  const void* const address = reinterpret_cast<const void*>(function);
  const PyModuleDef* const definition = PyModule_GetDef(module);
  return definition != nullptr && library_of(address) == library_of(definition);
}

}  // namespace

void know_wall_clock() {
  const python::Ref module = python::import(kTime);
  const python::Ref clock = python::attribute(module.get(), kTime);
  if (!PyCFunction_CheckExact(clock.get())) return;
  const PyCFunction function = PyCFunction_GET_FUNCTION(clock.get());
  if (belongs_to(function, module.get())) known = function;
}

bool surely_before(PyObject* clock, double instant) noexcept {
  if (known == nullptr || !PyCFunction_CheckExact(clock) || PyCFunction_GET_FUNCTION(clock) != known)
    return false;
  // The kernel's last tick costs a fraction of an exact reading.
  timespec tick{};
  clock_gettime(CLOCK_REALTIME_COARSE, &tick);
  return static_cast<double>(tick.tv_sec) + static_cast<double>(tick.tv_nsec) * 1e-9 + kTickSeconds < instant;
}

}  // namespace tessaline::native
