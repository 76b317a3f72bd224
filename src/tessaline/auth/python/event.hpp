#pragma once

#include <Python.h>

namespace tessaline::auth::python {

/// Looks up Python's own methods of events. Called once, by the module's initialisation.
void know_own_events();

/// `event.set()`, `event.clear()` and `event.wait()` on an event of Python.
///
/// Ctrl-C in the main thread, or a failed allocation in any, can end Python's own methods with the event's
/// inner lock still locked, and the next user of the event would deadlock. For a plain `threading.Event`
/// these functions take that lock themselves, where no signal handler runs and releasing it needs no memory.
/// Other events get their method called, as do all events while another library replaces the locks of
/// `threading`. Setting and clearing a plain event needs no memory.
void set_event(PyObject* event);
void clear_event(PyObject* event);
void wait_event(PyObject* event);

/// The same for at most `seconds`; returns whether the event is set.
bool wait_event(PyObject* event, double seconds);

}  // namespace tessaline::auth::python
