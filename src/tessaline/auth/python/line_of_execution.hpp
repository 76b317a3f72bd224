#pragma once

namespace tessaline::auth::python {

/// What runs now, as identified by `threading.get_ident()`: an operating system's thread, or a green thread
/// of a library (gevent, eventlet) that replaces the interpreter's threads. Never 0. Raises KeyboardInterrupt
/// if Ctrl-C interrupts a library's function.
unsigned long line_of_execution();

/// Whether this is the thread on which the interpreter runs signal handlers.
bool on_main_thread();

/// Looks up the interpreter's own `get_ident`. Called once, by the module's initialisation.
void know_own_get_ident();

}  // namespace tessaline::auth::python
