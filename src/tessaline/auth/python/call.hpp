#pragma once

#include <Python.h>

#include <initializer_list>
#include <utility>

#include "tessaline/auth/python/name.hpp"
#include "tessaline/auth/python/ref.hpp"

// The doors through which C++ runs Python code. Each throws Error with the exception that the code raised;
// arguments are borrowed for the call.

namespace tessaline::auth::python {

using Arguments = std::initializer_list<PyObject*>;
using Keywords = std::initializer_list<std::pair<const Name&, PyObject*>>;

Ref call(PyObject* callable, Arguments arguments = {}, Keywords keywords = {});

/// `object.name(…)`, looked up on the instance first, so that subclasses and patched instances take effect.
Ref call_method(PyObject* object, const Name& name, Arguments arguments = {}, Keywords keywords = {});

Ref attribute(PyObject* object, const Name& name);
void set_attribute(PyObject* object, const Name& name, PyObject* value);

/// `object[key]`.
Ref item(PyObject* object, PyObject* key);

bool truthy(PyObject* object);
bool equal(PyObject* a, PyObject* b);
bool less(PyObject* a, PyObject* b);
bool at_least(PyObject* a, PyObject* b);

/// `element in container`.
bool contains(PyObject* container, PyObject* element);

Ref add(PyObject* a, PyObject* b);
Ref subtract(PyObject* a, PyObject* b);
Ref multiply(PyObject* a, PyObject* b);

/// `str(object)`.
Ref text_of(PyObject* object);

/// The number of elements of a container.
Py_ssize_t length(PyObject* object);

Ref iterator(PyObject* iterable);

/// The next element, or an empty reference at the end.
Ref next(PyObject* iterator);

}  // namespace tessaline::auth::python
