#include "tessaline/auth/manager/refresh_loop.hpp"

#include <algorithm>
#include <optional>
#include <utility>

#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

constexpr double kSleepSeconds = 1.0;           // at least, between two checks
constexpr double kInjectedSleepSeconds = 0.05;  // an injected clock may move at any time

Ref this_thread() {
  return python::call_method(python::global(names::threading).get(), names::current_thread);
}

/// Whether the step failed for lack of memory, so that it can be tried again. Other failures are raised.
template <class Step>
bool lacks_memory(Step&& step) {
  std::optional<python::Error> failure = python::caught(std::forward<Step>(step));
  if (failure && !failure->matches(PyExc_MemoryError)) throw std::move(*failure);
  return failure.has_value();
}

}  // namespace

Ref RefreshLoop::own_thread() {
  Ref thread;
  while (lacks_memory([&] { thread = this_thread(); })) rest();
  return thread;
}

RefreshLoop::RefreshLoop(AuthManager& manager) : manager_(manager), standing_(own_thread()) {}

RefreshLoop::~RefreshLoop() {
  manager_.refresh_threads.resign(standing_.thread());
}

void RefreshLoop::run() {
  while (!stop_requested()) {
    Pass next = Pass::kAgain;
    const bool failed = python::caught([&] { next = pass(); }).has_value();
    if (next == Pass::kEnd) return;
    // A failure of the clock may be transient, and without this loop the token would expire.
    if (failed && python::caught([this] { wait(shortest_sleep()); })) rest();
  }
}

RefreshLoop::Pass RefreshLoop::pass() {
  State state;
  Ref refresh_at;
  {
    const HeldLock held(manager_);
    state = held.state();
    if (state == State::kClosed || is_superseded(held)) return Pass::kEnd;
    refresh_at = held.get(Field::kRefreshAt);
  }
  if (state != State::kAuthenticated || refresh_at.is_none()) {
    wait(shortest_sleep());
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

bool RefreshLoop::is_superseded(const HeldLock& held) {
  return standing_.is_superseded(held, manager_.refresh_threads);
}

void RefreshLoop::refresh() {
  manager_.set_event(Field::kRefreshPending);
  // Before the refresh: if a login fails meanwhile, it sees that no loop is left, and starts one.
  manager_.refresh_threads.resign(standing_.thread());
  // A refresh stores its own failure; this thread has no caller.
  static_cast<void>(python::caught([this] {
    while (lacks_memory([this] { manager_.call_own(names::do_refresh); }) && !stop_requested()) rest();
  }));
}

double RefreshLoop::shortest_sleep() const {
  return manager_.is_true(Field::kUsesInjectedClock) ? kInjectedSleepSeconds : kSleepSeconds;
}

double RefreshLoop::wait_seconds(double remaining) const {
  const double poll = shortest_sleep();
  return manager_.is_true(Field::kUsesInjectedClock) ? poll : std::max(poll, remaining);
}

void RefreshLoop::wait(double seconds) {
  const Ref event = manager_.get(Field::kRefreshEvent);
  if (const Ref older = manager_.refresh_threads.living_older(standing_.thread())) {
    retire(older.get(), event.get());
  } else {
    python::wait_event(event.get(), seconds);
  }
  // The signal may be for the successor, which may not be waiting yet; that of a close is for every loop.
  const HeldLock held(manager_);
  if (!held.closed() && !is_superseded(held)) python::clear_event(event.get());
}

void RefreshLoop::retire(PyObject* older, PyObject* wake) const {
  python::set_event(wake);
  python::call_method(older, names::join, {}, {{names::timeout, python::number(shortest_sleep()).get()}});
}

void RefreshLoop::rest() {
  const bool failed =
      python::caught([] {
        const Ref seconds = python::number(kSleepSeconds);
        python::call_method(python::global(names::time_module).get(), names::sleep, {seconds.get()});
      }).has_value();
  if (failed) python::pause_without_gil();
}

}  // namespace tessaline::auth
