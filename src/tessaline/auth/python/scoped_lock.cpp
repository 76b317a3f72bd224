#include "tessaline/auth/python/scoped_lock.hpp"

#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/park.hpp"
#include "tessaline/auth/python/plain_lock.hpp"

namespace tessaline::auth::python {
namespace {

constinit const Name kEnter{"__enter__"};
constinit const Name kExit{"__exit__"};
constinit const Name kRelease{"release"};

}  // namespace

ScopedLock::ScopedLock(Ref lock) : lock_(std::move(lock)) {
  kExit.object();
  kRelease.object();
  call_method(lock_.get(), kEnter);
}

ScopedLock::~ScopedLock() {
  std::optional<Error> failure = caught([this] {
    // This method needs no memory: the lock must not stay locked for lack of it.
    if (is_plain_lock(lock_.get())) {
      call_method(lock_.get(), kRelease);
    } else {
      call_method(lock_.get(), kExit, {Py_None, Py_None, Py_None});
    }
  });
  if (!failure) return;
  door([&] {
    std::move(*failure).restore();
    PyErr_WriteUnraisable(lock_.get());
  });
}

}  // namespace tessaline::auth::python
