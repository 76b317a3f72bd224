#pragma once

#include <Python.h>

#include <array>
#include <cstddef>
#include <initializer_list>
#include <utility>

#include "tessaline/auth/constants.hpp"
#include "tessaline/auth/manager/attempt.hpp"
#include "tessaline/auth/manager/fields.hpp"
#include "tessaline/auth/manager/refresh_threads.hpp"
#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/name.hpp"
#include "tessaline/auth/python/ref.hpp"
#include "tessaline/auth/wallet/wallet_key.hpp"

namespace tessaline::auth {

class HeldLock;

State state_of(PyObject* text);

/// State that belongs to `_lock`; use `HeldLock`.
struct LockState {
  unsigned long owner;  ///< the line of execution that holds it through `HeldLock`, or 0
  bool close_deferred;  ///< `close` was called by code that ran under it
  PyObject* replaced;   ///< list of values to release after the lock
};

/// Callers that wait, or are about to wait, for `_refresh_done`: clearing it now would lose the signal.
struct RefreshWaiters {
  int count;
  bool signal_is_stale;  ///< to be cleared by the last of them
};

/// One wallet identity at one server: the class that a program sees as `AuthManager`. See README.md in this
/// folder for the terms, the states and who waits for whom.
///
/// A plain structure, because the interpreter allocates it: zeroed, then `construct`. Access what `_lock`
/// guards through `HeldLock`; methods run under the GIL, on any thread.
struct AuthManager {
  PyObject_HEAD std::array<PyObject*, kFieldCount> fields;
  PyObject* dict;            ///< the instance's `__dict__`; null until used
  wallet::WalletKey* key;    ///< null once wiped
  Attempt* attempt;          ///< the current one; never null once constructed
  PyObject* highest_era;     ///< announced so far; null: none
  unsigned long generation;  ///< of the process that the lock and the threads belong to
  LockState lock;
  RefreshThreads refresh_threads;
  RefreshWaiters refresh_waiters;

  // Construction and type slots.
  void construct(PyObject* private_key, PyObject* server_url, PyObject* invite_code,
                 PyObject* register_wallet, PyObject* clock, PyObject* transport);
  int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;

  /// Class, address, server and state; no secret.
  Ref represent();

  // The private key as Python sees it: 64 hexadecimal digits, or None.
  Ref private_key() const;
  void set_private_key(PyObject* value);
  void wipe_key() noexcept;

  // Login.
  Ref authenticate();
  Ref do_auth_flow();
  Ref do_auth_flow_matching_pending_era();
  Ref store_auth_result(PyObject* token, PyObject* wallet_secret);
  Ref compute_refresh_at(PyObject* auth_time);
  Ref raise_if_pending_era_locked();

  /// Raises "era_mismatch" if an era has been announced since the flow began that `token` does not meet, even
  /// if another flow has met it since. `era_before`: the highest era when the flow began.
  void require_era_announced_since(const HeldLock& held, PyObject* era_before, PyObject* token);
  Ref announced_era() const;

  // Attempts.

  /// Makes `begun` the current attempt, in this state and mode.
  void begin_attempt(const HeldLock& held, AttemptRef begun, State state, PyObject* mode);
  void replace_attempt(const HeldLock& held, AttemptRef replacement) noexcept;
  AttemptRef current_attempt() const noexcept { return AttemptRef(attempt); }

  /// The attempt to wait for: the current one, or one for an event that the program has assigned.
  AttemptRef attempt_to_wait_for(const HeldLock& held) const;

  /// The same, and makes it the current one: a program may have begun it.
  AttemptRef adopt_attempt();

  /// Waits until it has ended; false if this is now a forked child, in which it does not run. Raises
  /// RuntimeError for a deadlock: on the line of execution that runs it, in a transport, a log handler or a
  /// signal handler.
  bool wait_for(const AttemptRef& awaited);

  /// Its failure, or None. For the current attempt, `_auth_error` still decides.
  Ref outcome_of(const HeldLock& held, const Attempt& ended) const;

  /// Stores the failure for those who wait for the attempt, wakes them and, if it is still the current one,
  /// changes the state, depending on its kind, and on whether there is a token or a pending era. `expected`:
  /// the attempt that has to be the current one; differs from `failed` if that one was begun beside it.
  void settle_failure(const AttemptRef& failed, Attempt::Kind run_as, const python::Error& error,
                      const Attempt* expected);

  /// Stores a failure for the next caller.
  void record_failure(const HeldLock& held, PyObject* recorded);
  void wake_waiters_of(const Attempt& ended);

  /// Raises a stored error, as the same object.
  [[noreturn]] void raise_stored(const HeldLock& held, PyObject* error);

  // Background renewal.
  Ref start_refresh();
  Ref refresh_loop();
  Ref do_refresh();

  /// Runs a flow and stores its result; false if the manager was closed meanwhile.
  bool renew();

  /// Starts a refresh thread if the manager is authenticated and none is alive.
  void revive_refresh();

  /// Starts the next refresh thread from a background thread, where nothing can be raised to a caller.
  void start_next_refresh();

  /// Wakes all who wait for a refresh whose thread could not be started.
  void record_unstarted_refresh(const python::Error& error);
  Ref new_daemon_thread(const python::Name& method);
  void clear_refresh_done();

  // Eras.
  Ref notify_era_change(PyObject* new_era_number);
  Ref background_reauth();

  // Serving.
  Ref get_token();
  Ref poll_for_reauth(bool fallback_to_current_token);

  /// The same for a caller that found `old_token` expired, even if it has been renewed since.
  Ref poll_after_expiry(PyObject* old_token, bool fallback_to_current_token);
  Ref get_wallet_secret();
  Ref get_token_expiry();
  Ref get_wallet_address();

  /// The token at once if the manager is plainly healthy; empty means unknown.
  Ref token_if_healthy();
  void raise_if_pending_era(const HeldLock& held);
  void raise_if_permanent_error(const HeldLock& held) const;

  // Profile, shutdown, forks.
  Ref set_display_name(PyObject* display_name);
  Ref close();

  /// Sets the state CLOSED; complete_close() does the rest.
  void mark_closed(const HeldLock& held) noexcept;
  void complete_close();
  void finish_deferred_close() noexcept;

  /// Prepares the manager at its first use in a forked child: a new lock and new events, no threads. The
  /// token is still served, and renewal restarts. A close that had begun is completed.
  void begin_anew_in_child();

  // Fields.
  PyObject* object() noexcept { return reinterpret_cast<PyObject*>(this); }

  /// The field's value; AttributeError if it was deleted or never set.
  Ref get(FreeField free) const { return value_of(free.field); }
  void set(FreeField free, Ref value) noexcept {
    python::drop(std::exchange(at(free.field), value.release()));
  }
  bool is_true(FreeField free) const;
  void set_event(FreeField event);
  void clear_event(FreeField event);
  bool event_is_set(FreeField event) const;

  /// A single read under the GIL, hence without `_lock`.
  bool is_closed() const { return state_of(value_of(Field::kState).get()) == State::kClosed; }

  /// Any field, for `HeldLock`, and wherever the GIL is enough.
  Ref value_of(Field field) const;
  PyObject*& at(Field field) noexcept { return fields[static_cast<std::size_t>(field)]; }
  PyObject* at(Field field) const noexcept { return fields[static_cast<std::size_t>(field)]; }

  /// Calls one of the manager's own methods through the instance.
  Ref call_own(const python::Name& method, std::initializer_list<PyObject*> arguments = {});

  /// Creates `threading.Event()` and `threading.Lock()`.
  static Ref new_event();
  static Ref new_lock();
};

/// Creates the interned texts of states and modes. Called once, by the module's initialisation.
void make_manager_texts();

/// Looks up which of Python's functions the fast path may bypass. Called once, with the class.
void know_own_members(PyTypeObject* manager_type);

/// Whether `_poll_for_reauth` is overridden neither by a subclass nor on this instance.
bool has_own_poll(PyObject* manager);

PyObject* state_text(State state) noexcept;
PyObject* proactive_mode() noexcept;
PyObject* era_change_mode() noexcept;

/// `event.is_set()`.
bool is_set(PyObject* event);

/// The error that waiters of a failed flow get: the failure itself if it is an AuthError, else an AuthError
/// whose reason is its text; the failure itself too if memory is short.
Ref recorded_error(const python::Error& error) noexcept;

/// Whether the failure is an AuthError that stops renewal.
bool is_permanent(const python::Error& error) noexcept;

}  // namespace tessaline::auth
