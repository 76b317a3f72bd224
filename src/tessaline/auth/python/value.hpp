#pragma once

#include <Python.h>

#include <array>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "tessaline/auth/python/name.hpp"
#include "tessaline/auth/python/ref.hpp"

// Conversions to and from Python. None of these runs Python code, except unpacking.

namespace tessaline::auth::python {

Ref text(std::string_view utf8);
Ref number(double value);
Ref integer(long value);
Ref bytes(std::string_view data);

/// The value of an int, or of a float without a fraction; 0 if it is out of range or has a fraction.
long long_value(PyObject* integer_object);

/// The value of a real number.
double double_value(PyObject* real);

/// A new dict with these entries, in order.
Ref dictionary(std::initializer_list<std::pair<const Name&, PyObject*>> entries);

/// `a, b, c = iterable`, with Python's error for another count.
std::array<Ref, 3> unpack3(PyObject* iterable);

/// A tuple of three, taking over the references.
Ref triple(Ref a, Ref b, Ref c);

/// The UTF-8 form of a str, valid during its lifetime. Throws Error for lone surrogates and other types.
std::string_view utf8_of(PyObject* text_object);

void set_entry(PyObject* dict, const Name& name, PyObject* value);

bool has_entry(PyObject* dict, const Name& name);

/// The value of an entry of a dict, or an empty reference.
Ref entry(PyObject* dict, const Name& name);

}  // namespace tessaline::auth::python
