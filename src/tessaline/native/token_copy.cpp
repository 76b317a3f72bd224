#include "tessaline/native/token_copy.hpp"

#include <utility>

#include "tessaline/auth/python/python.hpp"
#include "tessaline/native/types.hpp"

namespace tessaline::native {

PyTypeObject* token_copy_type = nullptr;

namespace {

using auth::python::Ref;
namespace python = auth::python;

TokenCopy& copy_of(PyObject* self) {
  return *reinterpret_cast<TokenCopy*>(self);
}

PyObject* make(PyTypeObject* type, PyObject* arguments, PyObject* keywords) {
  return python::boundary([&] {
    static constexpr python::Parameters kParameters("TokenCopy", {"clock", "board"}, 2, 2, 0);
    const python::Bound given = kParameters.bind(arguments, keywords);
    if (!Py_IS_TYPE(given[1], era_board_type))
      python::raise(PyExc_TypeError, "the board must be an EraBoard");
    Ref made = python::checked(type->tp_alloc(type, 0));
    copy_of(made.get()).clock = Py_NewRef(given[0]);
    copy_of(made.get()).board = Py_NewRef(given[1]);
    return made;
  });
}

int clear(PyObject* self) {
  TokenCopy& copy = copy_of(self);
  for (PyObject** member : {&copy.clock, &copy.board, &copy.token})
    python::drop(std::exchange(*member, nullptr));
  return 0;
}

void deallocate(PyObject* self) {
  deallocate_tracked(self, clear);
}

int traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  const TokenCopy& copy = copy_of(self);
  for (PyObject* member : {copy.clock, copy.board, copy.token}) Py_VISIT(member);
  return 0;
}

PyObject* put(PyObject* self, PyObject* const* arguments, Py_ssize_t count, PyObject* keyword_names) {
  return python::boundary([&] {
    static constexpr python::Parameters kParameters("TokenCopy.put", {"token", "expiry", "era"}, 3, 3, 1);
    const python::Bound given = kParameters.bind(arguments, count, keyword_names);
    if (!PyUnicode_Check(given[0])) python::raise(PyExc_TypeError, "the token must be a str");
    const double expiry = python::double_value(given[1]);
    const std::int64_t era = era_of(given[2]);
    TokenCopy& copy = copy_of(self);
    copy.expiry = expiry;
    copy.era = era;
    python::drop(std::exchange(copy.token, Py_NewRef(given[0])));
    return Ref::none();
  });
}

PyObject* drop_token(PyObject* self, PyObject*) {
  python::drop(std::exchange(copy_of(self).token, nullptr));
  return Py_NewRef(Py_None);
}

PyObject* shift(PyObject* self, PyObject* seconds) {
  return python::boundary([&] {
    copy_of(self).expiry += python::double_value(seconds);
    return Ref::none();
  });
}

PyObject* get(PyObject* self, PyObject*) {
  return python::boundary([&] {
    Ref token = copy_of(self).good_token();
    return token ? std::move(token) : Ref::none();
  });
}

PyObject* token(PyObject* self, void*) {
  PyObject* const kept = copy_of(self).token;
  return Py_NewRef(kept == nullptr ? Py_None : kept);
}

PyObject* expiry(PyObject* self, void*) {
  return PyFloat_FromDouble(copy_of(self).expiry);
}

PyObject* era(PyObject* self, void*) {
  return PyLong_FromLongLong(copy_of(self).era);
}

PyMethodDef methods[] = {
    {"put", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(put)), METH_FASTCALL | METH_KEYWORDS,
     "put($self, /, token, expiry, era)\n--\n\nReplace token, expiry (seconds on the clock) and era (0: "
     "none)."},
    {"drop", drop_token, METH_NOARGS, "drop($self, /)\n--\n\nForget the token."},
    {"shift", shift, METH_O, "shift($self, seconds, /)\n--\n\nMove the expiry with a clock that was set."},
    {"get", get, METH_NOARGS, "get($self, /)\n--\n\nThe token if it is good now, else None."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"token", token, nullptr, "The token, good or not; None for none.", nullptr},
    {"expiry", expiry, nullptr, "When it expires, in seconds on the clock.", nullptr},
    {"era", era, nullptr, "The era of the token; 0 where it names none.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(make)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(deallocate)},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {Py_tp_doc, const_cast<char*>("TokenCopy(clock, board)\n--\n\nA token, and whether it may be served.")},
    {0, nullptr},
};

PyType_Spec spec = {"tessaline._native.TokenCopy", static_cast<int>(sizeof(TokenCopy)), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC, slots};

}  // namespace

bool TokenCopy::is_of_the_era() const noexcept {
  return reinterpret_cast<const EraBoard*>(board)->era() <= era;
}

Ref TokenCopy::good_token() const {
  if (token == nullptr) return {};
  if (python::is_wall_clock(clock) && python::is_far_ahead(expiry)) {
    return is_of_the_era() ? Ref::borrow(token) : Ref();
  }
  python::require_stack();
  const Ref kept = Ref::borrow(token);
  const Ref now = python::call(clock);
  const double instant = python::double_value(now.get());
  // The clock may be Python code, which may change anything; from here on nothing calls Python.
  if (token != kept.get() || !(instant < expiry) || !is_of_the_era()) return {};
  return Ref::borrow(kept.get());
}

void add_token_copy_type(PyObject* module) {
  token_copy_type = add_type(module, spec);
}

}  // namespace tessaline::native
