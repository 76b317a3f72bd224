#include "tessaline/auth/python/scoped_lock.hpp"

#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/park.hpp"

namespace tessaline::auth::python {
namespace {

constinit const Name kEnter{"__enter__"};
constinit const Name kExit{"__exit__"};

}  // namespace

ScopedLock::ScopedLock(Ref lock) : lock_(std::move(lock)) {
  kExit.object();
  call_method(lock_.get(), kEnter);
}

ScopedLock::~ScopedLock() {
  try {
    call_method(lock_.get(), kExit, {Py_None, Py_None, Py_None});
  } catch (Error& error) {
    door([&] {
      std::move(error).restore();
      PyErr_WriteUnraisable(lock_.get());
    });
  }
}

}  // namespace tessaline::auth::python
