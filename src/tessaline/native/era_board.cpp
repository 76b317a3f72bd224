#include "tessaline/native/era_board.hpp"

#include <sys/mman.h>

#include <atomic>
#include <limits>

#include "tessaline/auth/python/python.hpp"
#include "tessaline/native/types.hpp"

namespace tessaline::native {

PyTypeObject* era_board_type = nullptr;

namespace {

using auth::python::Ref;
namespace python = auth::python;

constexpr std::size_t kSize = sizeof(std::int64_t);

std::atomic_ref<std::int64_t> word_on(void* page) {
  static_assert(std::atomic_ref<std::int64_t>::is_always_lock_free, "several processes use it");
  return std::atomic_ref<std::int64_t>(*static_cast<std::int64_t*>(page));
}

EraBoard& board_of(PyObject* self) {
  return *reinterpret_cast<EraBoard*>(self);
}

PyObject* make(PyTypeObject* type, PyObject* arguments, PyObject* keywords) {
  return python::boundary([&] {
    static constexpr python::Parameters kParameters("EraBoard", {}, 0, 0, 0);
    kParameters.bind(arguments, keywords);
    Ref made = python::checked(type->tp_alloc(type, 0));
    void* const page = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
      PyErr_SetFromErrno(PyExc_OSError);
      throw python::Error::fetch();
    }
    board_of(made.get()).page = page;
    return made;
  });
}

void deallocate(PyObject* self) {
  PyTypeObject* const type = Py_TYPE(self);
  if (void* const page = board_of(self).page) munmap(page, kSize);
  type->tp_free(self);
  python::drop(reinterpret_cast<PyObject*>(type));
}

PyObject* era(PyObject* self, void*) {
  return PyLong_FromLongLong(board_of(self).era());
}

[[noreturn]] void raise_number(const char* form, PyObject* number) {
  PyErr_Format(PyExc_ValueError, form, python::text_of(number).get());
  throw python::Error::fetch();
}

PyObject* announce(PyObject* self, PyObject* number) {
  return python::boundary([&] {
    const std::int64_t era = era_of(number);
    if (era <= 0) raise_number("era_number must be > 0, got %U", number);
    if (era == std::numeric_limits<std::int64_t>::max())
      raise_number("era_number must be < 2**63 - 1, got %U", number);
    board_of(self).announce(era);
    return Ref::none();
  });
}

PyMethodDef methods[] = {
    {"announce", announce, METH_O,
     "announce($self, era, /)\n--\n\n"
     "Raise the board to this era, for every process that shares it; a lower one changes nothing.\n\n"
     "Raises:\n"
     "    ValueError: The number is not positive, or is too large."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"era", era, nullptr, "The highest era that was announced; 0 for none.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(make)},
    {Py_tp_dealloc, reinterpret_cast<void*>(deallocate)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {Py_tp_doc,
     const_cast<char*>(
         "EraBoard()\n--\n\n"
         "The highest era that was announced, in memory shared with the children of a fork.\n\n"
         "Create it before the fork and pass it to the keepers of all children: an era that is announced\n"
         "in one process reaches all. Any thread and process may use it; nothing waits.\n\n"
         "Raises:\n"
         "    OSError: There is no memory to share.")},
    {0, nullptr},
};

PyType_Spec spec = {"tessaline.keeper.EraBoard", static_cast<int>(sizeof(EraBoard)), 0, Py_TPFLAGS_DEFAULT,
                    slots};

}  // namespace

std::int64_t EraBoard::era() const noexcept {
  return word_on(page).load(std::memory_order_acquire);
}

void EraBoard::announce(std::int64_t announced) noexcept {
  const auto word = word_on(page);
  std::int64_t before = word.load(std::memory_order_relaxed);
  while (before < announced && !word.compare_exchange_weak(before, announced, std::memory_order_acq_rel)) {
  }
}

void add_era_board_type(PyObject* module) {
  era_board_type = add_type(module, spec);
}

}  // namespace tessaline::native
