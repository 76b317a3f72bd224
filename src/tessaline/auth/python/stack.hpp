#pragma once

namespace tessaline::auth::python {

/// Raises RecursionError where little is left of the C stack: native methods that call each other through the
/// interpreter use more of it than it counts.
///
/// Called where Python enters native code that may call Python, before anything has begun that would have
/// to be undone. What an entry does once it has passed has the margin for itself; that its steps release and
/// wake others never fails for want of stack.
void require_stack();

}  // namespace tessaline::auth::python
