#include "tessaline/auth/steps/clock.hpp"

#include <limits>
#include <optional>
#include <utility>

#include "tessaline/auth/errors/notes.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/steps/closing.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

constexpr double kClockPollSeconds = 0.05;
constexpr double kStuckSeconds = 1.0;

/// Through the instance: a subclass may override it.
Ref now(PyObject* manager) {
  return python::call_method(manager, names::get_time);
}

double monotonic(PyObject* time_module) {
  return python::double_value(python::call_method(time_module, names::monotonic).get());
}

/// A delay too large for a float, which a server may send, never ends; a negative one has ended.
Ref deadline_after(PyObject* start, PyObject* seconds) {
  Ref deadline;
  std::optional<python::Error> failure = python::caught([&] { deadline = python::add(start, seconds); });
  if (!failure) return deadline;
  if (!failure->matches(PyExc_OverflowError)) raise_of_reading(std::move(*failure), start);
  constexpr double kNever = std::numeric_limits<double>::infinity();
  return python::number(python::less(seconds, python::integer(0).get()) ? -kNever : kNever);
}

bool is_before(PyObject* reading, PyObject* deadline) {
  bool before = false;
  reckon_with(reading, [&] { before = python::less(reading, deadline); });
  return before;
}

}  // namespace

void raise_of_reading(python::Error failure, PyObject* reading) {
  if (python::tells_of_misuse(failure) && PyNumber_Check(reading) == 0) {
    python::add_note_from(failure.exception(), [reading] {
      return python::checked(PyUnicode_FromFormat(notes::kClockReading, Py_TYPE(reading)->tp_name));
    });
  }
  throw std::move(failure);
}

Ref read_clock(PyObject* manager) {
  const Ref clock = python::attribute(manager, names::clock);
  if (PyCallable_Check(clock.get()) == 0) {
    PyErr_Format(PyExc_TypeError, "clock must be callable, not %.200s", Py_TYPE(clock.get())->tp_name);
    throw python::Error::fetch();
  }
  return python::call(clock.get());
}

void wait_with_clock(PyObject* manager, PyObject* seconds) {
  Ref last = now(manager);
  Ref deadline = deadline_after(last.get(), seconds);
  Ref time_module = python::global(names::time_module);
  double moved_at = monotonic(time_module.get());
  while (is_before(now(manager).get(), deadline.get())) {
    if (is_closing(manager)) return;
    python::call_method(time_module.get(), names::sleep, {python::number(kClockPollSeconds).get()});
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
