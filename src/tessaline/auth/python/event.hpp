#pragma once

#include <Python.h>

namespace tessaline::auth::python {

/// Learns the host's own methods of events. Called once, when the module is executed.
void know_host_events();

/// `event.set()` and `event.clear()` on an event of the host.
///
/// Ctrl-C on the main thread can end the host's own methods with the event's inner lock left locked, and
/// whoever touches the event next would wait for ever. For a plain `threading.Event` these take that lock
/// themselves, where no signal handler runs; any other event gets its method called.
void set_event(PyObject* event);
void clear_event(PyObject* event);

}  // namespace tessaline::auth::python
