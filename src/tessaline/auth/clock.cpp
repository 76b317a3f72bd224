#include "tessaline/auth/clock.hpp"

#include <limits>
#include <optional>
#include <utility>

#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

constexpr double kPollSeconds = 0.05;
constexpr double kStuckSeconds = 1.0;

/// Through the instance, where a subclass may have a clock of its own.
Ref now(PyObject* manager) {
  return python::call_method(manager, names::get_time);
}

double monotonic(PyObject* time_module) {
  return python::double_value(python::call_method(time_module, names::monotonic).get());
}

/// A delay too large for a float, such as a server may ask for, never ends by itself.
Ref deadline_after(PyObject* start, PyObject* seconds) {
  Ref deadline;
  std::optional<python::Error> failure = python::caught([&] { deadline = python::add(start, seconds); });
  if (!failure) return deadline;
  if (!failure->matches(PyExc_OverflowError)) throw std::move(*failure);
  return python::number(std::numeric_limits<double>::infinity());
}

}  // namespace

Ref read_clock(PyObject* manager) {
  return python::call(python::attribute(manager, names::clock).get());
}

void wait_with_clock(PyObject* manager, PyObject* seconds) {
  Ref last = now(manager);
  Ref deadline = deadline_after(last.get(), seconds);
  Ref time_module = python::global(names::time);
  double moved_at = monotonic(time_module.get());
  while (python::less(now(manager).get(), deadline.get())) {
    Ref close_event = python::attribute(manager, names::close_event);
    if (python::truthy(python::call_method(close_event.get(), names::is_set).get())) return;
    python::call_method(time_module.get(), names::sleep, {python::number(kPollSeconds).get()});
    Ref current = now(manager);
    if (!python::equal(current.get(), last.get())) {
      last = std::move(current);
      moved_at = monotonic(time_module.get());
    } else if (monotonic(time_module.get()) - moved_at > kStuckSeconds) {
      return;
    }
  }
}

}  // namespace tessaline::auth
