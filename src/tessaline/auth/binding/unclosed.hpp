#pragma once

namespace tessaline::auth::binding {

/// Has the interpreter's end tell, by a ResourceWarning, of managers that still renew their token: nobody has
/// closed them. Called with each manager; registered with the first, so that what a program registers later
/// to close its managers comes before it.
void watch_for_unclosed_managers();

}  // namespace tessaline::auth::binding
