#include "tessaline/auth/python/value.hpp"

#include <cmath>

#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/park.hpp"

namespace tessaline::auth::python {

Ref text(std::string_view utf8) {
  return checked(PyUnicode_FromStringAndSize(utf8.data(), static_cast<Py_ssize_t>(utf8.size())));
}

Ref number(double value) {
  return checked(PyFloat_FromDouble(value));
}

Ref integer(long value) {
  return checked(PyLong_FromLong(value));
}

Ref bytes(std::string_view data) {
  return checked(PyBytes_FromStringAndSize(data.data(), static_cast<Py_ssize_t>(data.size())));
}

long long_value(PyObject* integer_object) {
  // An injected callable may return 200.0, which Python considers equal to 200.
  if (PyFloat_Check(integer_object)) {
    const double real = PyFloat_AS_DOUBLE(integer_object);
    return real == std::trunc(real) && std::abs(real) < 1e9 ? static_cast<long>(real) : 0;
  }
  int overflow = 0;
  const long value = door([&] { return PyLong_AsLongAndOverflow(integer_object, &overflow); });
  if (overflow != 0) return 0;
  if (value == -1 && PyErr_Occurred() != nullptr) throw Error::fetch();
  return value;
}

double double_value(PyObject* real) {
  const double value = door([&] { return PyFloat_AsDouble(real); });
  if (value == -1.0 && PyErr_Occurred() != nullptr) throw Error::fetch();
  return value;
}

Ref dictionary(std::initializer_list<std::pair<const Name&, PyObject*>> entries) {
  Ref made = checked(PyDict_New());
  for (const auto& [name, value] : entries) checked(PyDict_SetItem(made.get(), name.object(), value));
  return made;
}

std::array<Ref, 3> unpack3(PyObject* iterable) {
  std::array<Ref, 3> parts;
  if (Py_TYPE(iterable)->tp_iter == nullptr && !PySequence_Check(iterable)) {
    PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(iterable)->tp_name);
    throw Error::fetch();
  }
  Ref elements = iterator(iterable);
  for (std::size_t index = 0; index < parts.size(); ++index) {
    parts[index] = next(elements.get());
    if (!parts[index]) {
      PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected 3, got %zu)", index);
      throw Error::fetch();
    }
  }
  if (next(elements.get())) raise(PyExc_ValueError, "too many values to unpack (expected 3)");
  return parts;
}

Ref triple(Ref a, Ref b, Ref c) {
  Ref made = checked(PyTuple_New(3));
  PyTuple_SET_ITEM(made.get(), 0, a.release());
  PyTuple_SET_ITEM(made.get(), 1, b.release());
  PyTuple_SET_ITEM(made.get(), 2, c.release());
  return made;
}

std::string_view utf8_of(PyObject* text_object) {
  Py_ssize_t size = 0;
  const char* data = PyUnicode_AsUTF8AndSize(text_object, &size);
  if (data == nullptr) throw Error::fetch();
  return {data, static_cast<std::size_t>(size)};
}

void set_entry(PyObject* dict, const Name& name, PyObject* value) {
  checked(PyDict_SetItem(dict, name.object(), value));
}

bool has_entry(PyObject* dict, const Name& name) {
  PyObject* const name_object = name.object();
  return checked(door([=] { return PyDict_Contains(dict, name_object); })) != 0;
}

Ref entry(PyObject* dict, const Name& name) {
  PyObject* const name_object = name.object();
  PyObject* value = nullptr;
  checked(door([&] { return PyDict_GetItemRef(dict, name_object, &value); }));
  return Ref::steal(value);
}

}  // namespace tessaline::auth::python
