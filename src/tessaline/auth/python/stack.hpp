#pragma once

namespace tessaline::auth::python {

/// Raises RecursionError if the C stack is almost used up: native methods that call each other through the
/// interpreter use more of it than the interpreter counts.
///
/// Called where Python enters native code that may call Python, before anything that would have to be undone.
/// Past this check, an entry can use the margin, so releasing locks and waking waiters never fails for want
/// of stack.
void require_stack();

}  // namespace tessaline::auth::python
