#include "tessaline/auth/binding/error_notes.hpp"

#include <utility>

#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth::binding {
namespace {

using python::Ref;

constexpr const char* kNotes = "__notes__";
constinit const python::Name kNotesName{kNotes};
constinit const python::Name kReduce{"__reduce__"};

/// Python visits and clears this slot as it does the exception's arguments, and does not use it otherwise.
PyObject*& notes_in(PyObject* error) {
  return reinterpret_cast<PyBaseExceptionObject*>(error)->notes;
}

[[noreturn]] void raise_without_notes(PyObject* error) {
  PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '%s'", Py_TYPE(error)->tp_name,
               kNotes);
  throw python::Error::fetch();
}

PyObject* get_notes(PyObject* error, void*) {
  return python::boundary([error] {
    if (notes_in(error) == nullptr) raise_without_notes(error);
    return Ref::borrow(notes_in(error));
  });
}

int set_notes(PyObject* error, PyObject* value, void*) {
  return python::status_boundary([=] {
    if (value == nullptr && notes_in(error) == nullptr) raise_without_notes(error);
    python::drop(std::exchange(notes_in(error), Py_XNewRef(value)));
  });
}

/// The result of the error's `__reduce__`, with the notes in its state.
Ref with_notes(PyObject* reduced, PyObject* notes) {
  if (!PyTuple_Check(reduced) || PyTuple_GET_SIZE(reduced) < 2) return Ref::borrow(reduced);
  PyObject* const before = PyTuple_GET_SIZE(reduced) > 2 ? PyTuple_GET_ITEM(reduced, 2) : nullptr;
  Ref state = python::checked(before != nullptr && PyDict_Check(before) ? PyDict_Copy(before) : PyDict_New());
  python::set_entry(state.get(), kNotesName, notes);
  return python::triple(Ref::borrow(PyTuple_GET_ITEM(reduced, 0)), Ref::borrow(PyTuple_GET_ITEM(reduced, 1)),
                        std::move(state));
}

PyObject* reduce(PyObject* error, PyTypeObject* defining_class, PyObject* const*, Py_ssize_t, PyObject*) {
  return python::boundary([=] {
    const Ref base = python::call(reinterpret_cast<PyObject*>(&PySuper_Type),
                                  {reinterpret_cast<PyObject*>(defining_class), error});
    Ref reduced = python::call(python::attribute(base.get(), kReduce).get());
    const Ref notes = Ref::borrow(notes_in(error));
    return notes ? with_notes(reduced.get(), notes.get()) : std::move(reduced);
  });
}

}  // namespace

PyGetSetDef error_attributes[] = {
    {kNotes, get_notes, set_notes, "What may help: a list of texts, there once a note has been added.",
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef error_methods[] = {
    {"__reduce__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&reduce)),
     METH_METHOD | METH_FASTCALL | METH_KEYWORDS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace tessaline::auth::binding
