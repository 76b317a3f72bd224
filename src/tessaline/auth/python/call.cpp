#include "tessaline/auth/python/call.hpp"

#include <algorithm>
#include <array>

#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/park.hpp"

namespace tessaline::auth::python {
namespace {

constexpr std::size_t kMostArguments = 10;

/// The argument vector of one call, with a free slot before the first, which Python may use.
struct Vector {
  std::array<PyObject*, kMostArguments + 1> places{};
  std::size_t positional = 0;
  Ref names;

  Vector(PyObject* first, Arguments arguments, Keywords keywords) {
    if (first != nullptr) push(first);
    for (PyObject* argument : arguments) push(argument);
    positional = count_;
    if (keywords.size() == 0) return;
    names = checked(PyTuple_New(static_cast<Py_ssize_t>(keywords.size())));
    Py_ssize_t index = 0;
    for (const auto& [name, value] : keywords) {
      PyTuple_SET_ITEM(names.get(), index++, Py_NewRef(name.object()));
      push(value);
    }
  }

  PyObject** first() noexcept { return places.data() + 1; }
  std::size_t flags() const noexcept { return positional | PY_VECTORCALL_ARGUMENTS_OFFSET; }

 private:
  void push(PyObject* value) {
    if (count_ == kMostArguments) raise(PyExc_SystemError, "too many arguments in a native call");
    places[++count_] = value;
  }

  std::size_t count_ = 0;
};

bool compare(PyObject* a, PyObject* b, int operation) {
  return checked(door([=] { return PyObject_RichCompareBool(a, b, operation); })) != 0;
}

}  // namespace

Ref call(PyObject* callable, Arguments arguments, Keywords keywords) {
  Vector vector(nullptr, arguments, keywords);
  return checked(door(
      [&] { return PyObject_Vectorcall(callable, vector.first(), vector.flags(), vector.names.get()); }));
}

Ref call_method(PyObject* object, const Name& name, Arguments arguments, Keywords keywords) {
  Vector vector(object, arguments, keywords);
  PyObject* const name_object = name.object();
  return checked(door([&] {
    return PyObject_VectorcallMethod(name_object, vector.first(), vector.flags(), vector.names.get());
  }));
}

Ref attribute(PyObject* object, const Name& name) {
  PyObject* const name_object = name.object();
  return checked(door([=] { return PyObject_GetAttr(object, name_object); }));
}

void set_attribute(PyObject* object, const Name& name, PyObject* value) {
  PyObject* const name_object = name.object();
  checked(door([=] { return PyObject_SetAttr(object, name_object, value); }));
}

Ref item(PyObject* object, PyObject* key) {
  return checked(door([=] { return PyObject_GetItem(object, key); }));
}

bool truthy(PyObject* object) {
  return checked(door([=] { return PyObject_IsTrue(object); })) != 0;
}

bool equal(PyObject* a, PyObject* b) {
  return compare(a, b, Py_EQ);
}
bool less(PyObject* a, PyObject* b) {
  return compare(a, b, Py_LT);
}

bool at_least(PyObject* a, PyObject* b) {
  return compare(a, b, Py_GE);
}

bool contains(PyObject* container, PyObject* element) {
  return checked(door([=] { return PySequence_Contains(container, element); })) != 0;
}

Ref add(PyObject* a, PyObject* b) {
  return checked(door([=] { return PyNumber_Add(a, b); }));
}

Ref subtract(PyObject* a, PyObject* b) {
  return checked(door([=] { return PyNumber_Subtract(a, b); }));
}

Ref multiply(PyObject* a, PyObject* b) {
  return checked(door([=] { return PyNumber_Multiply(a, b); }));
}

Ref text_of(PyObject* object) {
  return checked(door([=] { return PyObject_Str(object); }));
}

Py_ssize_t length(PyObject* object) {
  const Py_ssize_t size = door([=] { return PyObject_Size(object); });
  if (size < 0) throw Error::fetch();
  return size;
}

Ref iterator(PyObject* iterable) {
  return checked(door([=] { return PyObject_GetIter(iterable); }));
}

Ref next(PyObject* iterator_object) {
  PyObject* element = door([=] { return PyIter_Next(iterator_object); });
  if (element == nullptr && PyErr_Occurred() != nullptr) throw Error::fetch();
  return Ref::steal(element);
}

}  // namespace tessaline::auth::python
