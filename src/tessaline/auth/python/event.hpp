#pragma once

#include <Python.h>

namespace tessaline::auth::python {

/// Learns Python's own methods of events. Called once, when the module is executed.
void know_own_events();

/// `event.set()`, `event.clear()` and `event.wait()` on an event of Python.
///
/// Ctrl-C on the main thread, and memory that is short on any, can end Python's own methods with the
/// event's inner lock left locked, and whoever touches the event next would wait for ever. For a plain
/// `threading.Event` these take that lock themselves, where no signal handler runs and leaving needs no
/// memory; any other event gets its method called, and so does every event while another library makes the
/// locks of `threading`. Setting and clearing a plain event need no memory at all.
void set_event(PyObject* event);
void clear_event(PyObject* event);
void wait_event(PyObject* event);

/// The same for at most `seconds`; whether the event is set.
bool wait_event(PyObject* event, double seconds);

}  // namespace tessaline::auth::python
