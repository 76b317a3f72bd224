#include "tessaline/auth/python/note.hpp"

#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/park.hpp"
#include "tessaline/auth/python/value.hpp"

namespace tessaline::auth::python {
namespace {

constinit const Name kAddNote{"add_note"};
constinit const Name kNotes{"__notes__"};

/// The exception's list of notes, or an empty reference.
Ref notes_of(PyObject* exception) {
  PyObject* const name = kNotes.object();
  PyObject* notes = nullptr;
  checked(door([&] { return PyObject_GetOptionalAttr(exception, name, &notes); }));
  Ref owned = Ref::steal(notes);
  return owned && PyList_Check(owned.get()) ? std::move(owned) : Ref();
}

}  // namespace

void add_note(PyObject* exception, PyObject* note) {
  // A MemoryError in place of the intended exception.
  if (PyErr_GivenExceptionMatches(exception, PyExc_MemoryError) != 0) return;
  best_effort([=] {
    const Ref notes = notes_of(exception);
    if (!notes || !contains(notes.get(), note)) call_method(exception, kAddNote, {note});
  });
}

void add_note(PyObject* exception, std::string_view note) {
  if (!note.empty()) add_note_from(exception, [note] { return text(note); });
}

void copy_notes(PyObject* source, PyObject* exception) {
  best_effort([=] {
    const Ref notes = notes_of(source);
    // By index: adding a note may run code that changes the list.
    for (Py_ssize_t index = 0; notes && index < PyList_GET_SIZE(notes.get()); ++index) {
      const Ref note = Ref::borrow(PyList_GET_ITEM(notes.get(), index));
      if (PyUnicode_Check(note.get())) add_note(exception, note.get());
    }
  });
}

Error noted(Error error, std::string_view note) {
  add_note(error.exception(), note);
  return error;
}

void raise(PyObject* type, const char* message, std::string_view note) {
  const Ref error = call(type, {text(message).get()});
  add_note(error.get(), note);
  raise(error.get());
}

void raise_apart(PyObject* type, const char* message, std::string_view note) {
  const Ref error = call(type, {text(message).get()});
  PyObject* const object = error.get();
  best_effort([=] {
    const Ref made = text(note);
    PyObject* const value = made.get();
    checked(door([=] { return PyObject_CallMethod(object, "add_note", "O", value); }));
  });
  raise(object);
}

bool tells_of_misuse(const Error& error) noexcept {
  return error.matches(PyExc_TypeError) || error.matches(PyExc_ValueError) ||
         error.matches(PyExc_LookupError) || error.matches(PyExc_AttributeError);
}

}  // namespace tessaline::auth::python
