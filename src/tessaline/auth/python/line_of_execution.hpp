#pragma once

namespace tessaline::auth::python {

/// Who runs now, as `threading.get_ident()` names it when asked: an operating system's thread, or one of the
/// many that such a thread runs where a library (gevent, eventlet) has put its own threads in the place of
/// the interpreter's. Never 0. Ctrl-C while a library is asked is raised.
unsigned long line_of_execution();

/// Whether the thread is the one on which the interpreter runs signal handlers.
bool on_main_thread();

/// Learns the interpreter's own `get_ident`. Called once, when the module is executed.
void know_own_get_ident();

}  // namespace tessaline::auth::python
