#include "tessaline/auth/python/import.hpp"

#include <optional>
#include <string>

#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/park.hpp"
#include "tessaline/auth/python/value.hpp"

namespace tessaline::auth::python {
namespace {

/// Runs the statement: its error says more than that of a failed lookup.
Ref run_import(const Name& module, const Name& name) {
  const std::string statement = std::string("from ") + module.text() + " import " + name.text();
  const Ref scope = checked(PyDict_New());
  PyObject* const names = scope.get();
  const char* const source = statement.c_str();
  std::optional<Error> failure =
      caught([=] { checked(door([=] { return PyRun_String(source, Py_single_input, names, names); })); });
  if (!failure) return entry(names, name);
  // The traceback would show a line of no file.
  set_traceback(failure->exception(), Py_None);
  throw std::move(*failure);
}

}  // namespace

Ref import(const Name& name) {
  PyObject* const name_object = name.object();
  return checked(door([=] { return PyImport_Import(name_object); }));
}

Ref import_from(const Name& module, const Name& name) {
  const Ref from = import(module);
  Ref value;
  std::optional<Error> failure = caught([&] { value = attribute(from.get(), name); });
  if (!failure) return value;
  if (!failure->matches(PyExc_AttributeError)) throw std::move(*failure);
  return run_import(module, name);
}

}  // namespace tessaline::auth::python
