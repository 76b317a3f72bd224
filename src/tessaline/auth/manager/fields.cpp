#include "tessaline/auth/manager/fields.hpp"

#include "tessaline/auth/errors/note_texts.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

std::array<PyObject*, kStateTexts.size()> state_texts{};
PyObject* proactive = nullptr;
PyObject* era_change = nullptr;

PyObject* interned(const char* text) {
  return python::checked(PyUnicode_InternFromString(text)).release();
}

}  // namespace

void make_manager_texts() {
  for (std::size_t index = 0; index < state_texts.size(); ++index)
    state_texts[index] = interned(kStateTexts[index]);
  proactive = interned(kModeProactive);
  era_change = interned(kModeEraChange);
}

PyObject* state_text(State state) noexcept {
  return state_texts[static_cast<std::size_t>(state)];
}
PyObject* proactive_mode() noexcept {
  return proactive;
}
PyObject* era_change_mode() noexcept {
  return era_change;
}

State state_of(PyObject* text) {
  for (std::size_t index = 0; index < state_texts.size(); ++index) {
    if (text == state_texts[index]) return static_cast<State>(index);
  }
  for (std::size_t index = 0; index < state_texts.size(); ++index) {
    if (python::equal(text, state_texts[index])) return static_cast<State>(index);
  }
  return State::kUnknown;
}

bool is_set(PyObject* event) {
  return python::truthy(python::call_method(event, names::is_set).get());
}

Ref AuthManager::value_of(Field field) const {
  PyObject* const value = at(field);
  if (value == nullptr) {
    PyErr_Format(PyExc_AttributeError, "'AuthManager' object has no attribute '%s'",
                 kFieldNames[static_cast<std::size_t>(field)]);
    throw python::noted(python::Error::fetch(), notes::kNotConstructed);
  }
  return Ref::borrow(value);
}

bool AuthManager::is_true(FreeField free) const {
  const Ref value = get(free);
  return value.get() == Py_True || (value.get() != Py_False && python::truthy(value.get()));
}

void AuthManager::set_event(FreeField event) {
  python::set_event(get(event).get());
}
void AuthManager::clear_event(FreeField event) {
  python::clear_event(get(event).get());
}
bool AuthManager::event_is_set(FreeField event) const {
  return is_set(get(event).get());
}

Ref AuthManager::call_own(const python::Name& method, std::initializer_list<PyObject*> arguments) {
  return python::call_method(object(), method, arguments);
}

}  // namespace tessaline::auth
