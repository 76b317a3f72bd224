#pragma once

#include "tessaline/auth/python/name.hpp"
#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth::python {

/// The module of that name, imported if necessary.
Ref import(const Name& name);

/// `from module import name`, with Python's own error if it fails.
Ref import_from(const Name& module, const Name& name);

}  // namespace tessaline::auth::python
