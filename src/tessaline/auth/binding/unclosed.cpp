#include "tessaline/auth/binding/unclosed.hpp"

#include <algorithm>
#include <vector>

#include "tessaline/auth/binding/manager_type.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth::binding {
namespace {

using python::Ref;

constinit const python::Name kAtExit{"atexit"};
constinit const python::Name kRegister{"register"};
constinit const python::Name kEnumerate{"enumerate"};
constinit const python::Name kThreadTarget{"_target"};
constinit const python::Name kName{"__name__"};
constinit const python::Name kSelf{"__self__"};

/// The manager whose token the thread renews, if that is not closed; else empty. The threads refer to their
/// managers, so no list of managers is needed.
Ref open_manager_of(PyObject* thread) {
  Ref manager;
  // Other threads have no target, or one that is not a method.
  python::best_effort([&] {
    const Ref target = python::attribute(thread, kThreadTarget);
    if (target.is_none() ||
        !python::equal(python::attribute(target.get(), kName).get(), names::refresh_loop.object())) {
      return;
    }
    Ref owner = python::attribute(target.get(), kSelf);
    if (is_manager(owner.get()) && !reinterpret_cast<AuthManager*>(owner.get())->is_closed()) {
      manager = std::move(owner);
    }
  });
  return manager;
}

void warn_of(PyObject* manager) {
  const Ref shown = python::text_of(manager);
  const Ref text = python::checked(PyUnicode_FromFormat("unclosed %U", shown.get()));
  python::warn_of_resource(manager, text.get());
}

PyObject* warn_of_unclosed(PyObject*, PyObject*) {
  return python::boundary([] {
    const Ref threads = python::call_method(python::global(names::threading).get(), kEnumerate);
    const Ref each = python::iterator(threads.get());
    std::vector<PyObject*> told;
    while (const Ref thread = python::next(each.get())) {
      const Ref manager = open_manager_of(thread.get());
      // A superseded thread may not have ended yet.
      if (!manager || std::ranges::find(told, manager.get()) != told.end()) continue;
      told.push_back(manager.get());
      warn_of(manager.get());
    }
    return Ref::none();
  });
}

PyMethodDef hook = {"warn_of_unclosed_managers", warn_of_unclosed, METH_NOARGS, nullptr};

}  // namespace

void watch_for_unclosed_managers() {
  static bool watching = false;
  if (watching) return;
  python::best_effort([] {
    const Ref function = python::checked(PyCFunction_New(&hook, nullptr));
    python::call_method(python::import(kAtExit).get(), kRegister, {function.get()});
    watching = true;
  });
}

}  // namespace tessaline::auth::binding
