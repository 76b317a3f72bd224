#include "tessaline/auth/manager/refresh_loop.hpp"

#include <algorithm>
#include <optional>
#include <utility>

#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

constexpr double kPollSeconds = 1.0;
constexpr double kInjectedPollSeconds = 0.05;  // an injected clock may move at any time

Ref this_thread() {
  return python::call_method(python::global(names::threading).get(), names::current_thread);
}

/// Whether the step failed for want of memory, which there may be later. Other failures are raised.
template <class Step>
bool lacks_memory(Step&& step) {
  std::optional<python::Error> failure = python::caught(std::forward<Step>(step));
  if (failure && !failure->matches(PyExc_MemoryError)) throw std::move(*failure);
  return failure.has_value();
}

}  // namespace

bool is_alive(PyObject* thread) {
  if (thread == nullptr || thread == Py_None) return false;
  const Ref kept = Ref::borrow(thread);
  bool alive = false;
  // A host's own kind of thread may not know.
  std::optional<python::Error> failure =
      python::caught([&] { alive = python::call_method(kept.get(), names::is_alive).get() == Py_True; });
  if (failure && !failure->matches(PyExc_Exception)) throw std::move(*failure);
  return alive;
}

RefreshLoop::RefreshLoop(AuthManager& manager) : manager_(manager) {
  while (lacks_memory([this] { me_ = this_thread(); })) rest();
}

RefreshLoop::~RefreshLoop() {
  resign();
}

void RefreshLoop::run() {
  while (!stop_requested()) {
    Pass next = Pass::kAgain;
    const bool failed = python::caught([&] { next = pass(); }).has_value();
    if (next == Pass::kEnd) return;
    // A clock that fails now may work later; a loop that ended would leave the token to age.
    if (failed && python::caught([this] { wait(poll_seconds()); })) rest();
  }
}

RefreshLoop::Pass RefreshLoop::pass() {
  State state;
  Ref refresh_at;
  {
    const Locked lock(manager_);
    state = manager_.state();
    if (state == State::kClosed || superseded()) return Pass::kEnd;
    refresh_at = manager_.get(Field::kRefreshAt);
  }
  if (state != State::kAuthenticated || refresh_at.is_none()) {
    wait(poll_seconds());
    return Pass::kAgain;
  }
  const Ref now = manager_.call_own(names::get_time);
  if (python::at_least(now.get(), refresh_at.get())) {
    refresh();
    return Pass::kEnd;
  }
  wait(wait_seconds(python::double_value(python::subtract(refresh_at.get(), now.get()).get())));
  return Pass::kAgain;
}

bool RefreshLoop::stop_requested() {
  bool requested = false;
  const auto look = [&] {
    requested = manager_.event_is_set(Field::kRefreshStop) || manager_.event_is_set(Field::kCloseEvent);
  };
  while (lacks_memory(look)) rest();
  return requested;
}

bool RefreshLoop::superseded() {
  const Ref registered = manager_.get(Field::kRefreshThread);
  if (registered.get() == me_.get()) {
    was_registered_ = true;
    return false;
  }
  if (was_registered_ && !registered.is_none()) return true;
  PyObject* const newest = manager_.at(Hidden::kNewestRefreshThread);
  return newest != me_.get() && is_alive(newest);
}

void RefreshLoop::refresh() {
  manager_.set_event(Field::kRefreshPending);
  // From here on it sleeps for no refresh: a login that fails meanwhile finds that a loop is missing.
  resign();
  // What a refresh meets it records itself; here is nobody to tell.
  static_cast<void>(python::caught([this] {
    while (lacks_memory([this] { manager_.call_own(names::do_refresh); }) && !stop_requested()) rest();
  }));
}

void RefreshLoop::resign() noexcept {
  PyObject*& newest = manager_.at(Hidden::kNewestRefreshThread);
  if (newest == me_.get()) python::drop(std::exchange(newest, nullptr));
}

double RefreshLoop::poll_seconds() const {
  return manager_.is_true(Field::kUsesInjectedClock) ? kInjectedPollSeconds : kPollSeconds;
}

double RefreshLoop::wait_seconds(double remaining) const {
  const double poll = poll_seconds();
  return manager_.is_true(Field::kUsesInjectedClock) ? poll : std::max(poll, remaining);
}

void RefreshLoop::wait(double seconds) {
  const Ref event = manager_.get(Field::kRefreshEvent);
  if (const Ref older = living_older_thread()) {
    python::set_event(event.get());
    python::call_method(older.get(), names::join, {},
                        {{names::timeout, python::number(poll_seconds()).get()}});
  } else {
    python::wait_event(event.get(), seconds);
  }
  // The signal may be meant for the successor, which may not be waiting yet; that of a close is for every
  // loop.
  const Locked lock(manager_);
  if (!manager_.closed() && !superseded()) python::clear_event(event.get());
}

void RefreshLoop::rest() {
  const bool failed = python::caught([] {
                        const Ref seconds = python::number(kPollSeconds);
                        python::call_method(python::global(names::time).get(), names::sleep, {seconds.get()});
                      }).has_value();
  if (failed) python::pause_without_gil();
}

Ref RefreshLoop::living_older_thread() const {
  const Ref older = Ref::borrow(manager_.at(Hidden::kOlderRefreshThreads));
  while (manager_.at(Hidden::kNewestRefreshThread) == me_.get() && older && python::length(older.get()) > 0) {
    Ref thread = python::item(older.get(), python::integer(-1).get());
    if (is_alive(thread.get())) return thread;
    // Not the last by now, where this loop was superseded and listed meanwhile.
    if (python::contains(older.get(), thread.get())) {
      python::call_method(older.get(), names::remove, {thread.get()});
    }
  }
  return {};
}

}  // namespace tessaline::auth
