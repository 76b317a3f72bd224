#include "tessaline/auth/manager/attempt.hpp"

#include <new>

#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/manager/process_generation.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

/// Whether a thread of the interpreter's own type has begun and ended.
bool has_ended(PyObject* thread) {
  return !python::attribute(thread, names::ident).is_none() &&
         python::call_method(thread, names::is_alive).get() == Py_False;
}

}  // namespace

Attempt::Attempt(Kind of_kind, Ref its_event) noexcept
    : kind(of_kind), process(process_generation()), event(std::move(its_event)) {}

AttemptRef Attempt::make(Kind kind, Ref event) {
  auto* const made = new (std::nothrow) Attempt(kind, std::move(event));
  if (made == nullptr) python::checked(PyErr_NoMemory());
  return AttemptRef(made);
}

bool Attempt::is_worked_on() const {
  if (phase == Phase::kBegun) return kind == Kind::kEraChange && !is_lost();
  return phase == Phase::kRunning;
}

bool Attempt::is_lost() const {
  if (phase != Phase::kBegun || !thread) return false;
  const Ref kept = Ref::borrow(thread.get());
  // The thread may have begun and ended during that call.
  return has_ended(kept.get()) && phase == Phase::kBegun;
}

bool Attempt::is_left_behind() const noexcept {
  return process != process_generation();
}

void Attempt::remember_traceback(const HeldLock& held, PyObject* error) {
  if (raised_.get() == error) return;
  held.drop_later(std::exchange(raised_, Ref::borrow(error)));
  held.drop_later(std::exchange(traceback_, python::traceback_of(error)));
}

void Attempt::keep_failure(const HeldLock& held, PyObject* error) {
  held.drop_later(std::exchange(failure, Ref::borrow(error)));
  remember_traceback(held, error);
}

void Attempt::raise_stored(const HeldLock& held, PyObject* error) {
  remember_traceback(held, error);
  // The frames of the previous caller that it was raised to may own anything.
  held.drop_later(python::traceback_of(error));
  python::set_traceback(error, traceback_.get());
  python::raise(error);
}

int Attempt::traverse(visitproc visit, void* arg) const {
  // Every other share is held by a frame on a stack, which also holds the manager.
  if (holders_ > 1) return 0;
  for (const Ref* kept : {&event, &thread, &failure, &raised_, &traceback_}) Py_VISIT(kept->get());
  return 0;
}

void AttemptRef::give_back(Attempt* attempt) noexcept {
  if (attempt != nullptr && --attempt->holders_ == 0) delete attempt;
}

Running::Running(AttemptRef attempt)
    : attempt_(std::move(attempt)), mine_(attempt_->phase != Attempt::Phase::kRunning) {
  if (!mine_) return;
  const unsigned long here = python::line_of_execution();
  attempt_->runner = here;
  attempt_->phase = Attempt::Phase::kRunning;
}

Running::~Running() {
  if (!mine_) return;
  attempt_->runner = 0;
  attempt_->phase = Attempt::Phase::kEnded;
}

}  // namespace tessaline::auth
