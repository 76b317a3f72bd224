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

/// What belongs to `_lock`. `HeldLock` is the way to it.
struct LockState {
  unsigned long owner;  ///< the line of execution that holds it through `HeldLock`, or 0
  bool close_deferred;  ///< `close` was called by code that ran under it
  PyObject* replaced;   ///< list of what is dropped after it
};

/// Callers about to wait, or waiting, for `_refresh_done`: cleared under them, the signal would be lost.
struct RefreshWaiters {
  int count;
  bool signal_is_stale;  ///< to be cleared when the last of them has gone
};

/// One wallet identity at one server: the object that a program sees as `AuthManager`. README.md beside this
/// file has the nouns, the states and who waits for whom.
///
/// A plain structure, since the interpreter allocates it: zeros, then `construct`. What `_lock` guards is
/// reached through `HeldLock`; methods run with the interpreter's lock, on any thread.
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

  // Construction, and what the interpreter asks of an object.
  void construct(PyObject* private_key, PyObject* server_url, PyObject* invite_code,
                 PyObject* register_wallet, PyObject* clock, PyObject* transport);
  int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;

  /// Class, address, server and state; nothing secret.
  Ref represent();

  // The private key as a program sees it: 64 hexadecimal digits, or None.
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

  /// Raises "era_mismatch" for the token of a flow that began before an era was announced which it does not
  /// meet, also where another flow has met it since. `era_before`: the highest era when the flow began.
  void require_era_announced_since(const HeldLock& held, PyObject* era_before, PyObject* token);
  Ref announced_era() const;

  // Attempts.

  /// Makes `begun` the current attempt, in this state and mode.
  void begin_attempt(const HeldLock& held, AttemptRef begun, State state, PyObject* mode);
  void replace_attempt(const HeldLock& held, AttemptRef replacement) noexcept;
  AttemptRef current_attempt() const noexcept { return AttemptRef(attempt); }

  /// The attempt to wait for: the current one, or one that stands for the event that the program has written.
  AttemptRef attempt_to_wait_for(const HeldLock& held) const;

  /// The same, and makes it the current one: a program may have begun it.
  AttemptRef adopt_attempt();

  /// Waits for its end; false where this is another process by then, and nobody runs it. Raises RuntimeError
  /// where the end would never come: on the line of execution that runs it, in a transport, a log handler or
  /// a signal handler.
  bool wait_for(const AttemptRef& awaited);

  /// Its failure, or None. That of an attempt that is the current one still is what `_auth_error` says.
  Ref outcome_of(const HeldLock& held, const Attempt& ended) const;

  /// Keeps the failure for those who wait for the attempt, wakes them and, where it is the current one still,
  /// goes over to the state that follows: by its kind, whether a token is there and whether an era is
  /// pending. `expected`: the attempt that has to be the current one; another than `failed` where that was
  /// begun beside it.
  void settle_failure(const AttemptRef& failed, Attempt::Kind run_as, const python::Error& error,
                      const Attempt* expected);

  /// What a failure leaves for the next caller.
  void record_failure(const HeldLock& held, PyObject* recorded);
  void wake_waiters_of(const Attempt& ended);

  /// Raises a stored error, as the same object.
  [[noreturn]] void raise_stored(const HeldLock& held, PyObject* error);

  // Background renewal.
  Ref start_refresh();
  Ref refresh_loop();
  Ref do_refresh();

  /// Runs a flow and stores its result; false when the manager was closed meanwhile.
  bool renew();

  /// Starts a refresh thread where the manager is authenticated and none lives.
  void revive_refresh();

  /// Hands over to the next refresh thread on a background thread, which has nobody to raise to.
  void start_next_refresh();

  /// Leaves nobody waiting for a refresh thread that could not be started.
  void record_unstarted_refresh(const python::Error& error);
  Ref new_daemon_thread(const python::Name& method);
  void clear_refresh_done();

  // Eras.
  Ref notify_era_change(PyObject* new_era_number);
  Ref background_reauth();

  // Serving.
  Ref get_token();
  Ref poll_for_reauth(bool fallback_to_current_token);

  /// The same by a caller who has found `old_token` expired: one renewed since must not pass for it.
  Ref poll_after_expiry(PyObject* old_token, bool fallback_to_current_token);
  Ref get_wallet_secret();
  Ref get_token_expiry();
  Ref get_wallet_address();

  /// The token at once where nothing stands against serving it; else empty, which says nothing yet.
  Ref token_if_healthy();
  void raise_if_pending_era(const HeldLock& held);
  void raise_if_permanent_error(const HeldLock& held) const;

  // Profile, shutdown, forks.
  Ref set_display_name(PyObject* display_name);
  Ref close();

  /// The state CLOSED, and the rest of the shutdown.
  void mark_closed(const HeldLock& held) noexcept;
  void complete_close();
  void finish_deferred_close() noexcept;

  /// Makes the manager fit for a child process on its first use there: lock and events anew, no thread, the
  /// token still served, and renewal started again. A close that had begun is finished.
  void begin_anew_in_child();

  // Fields.
  PyObject* object() noexcept { return reinterpret_cast<PyObject*>(this); }

  /// The field's value; AttributeError where it was deleted or never set.
  Ref get(FreeField free) const { return value_of(free.field); }
  void set(FreeField free, Ref value) noexcept {
    python::drop(std::exchange(at(free.field), value.release()));
  }
  bool is_true(FreeField free) const;
  void set_event(FreeField event);
  void clear_event(FreeField event);
  bool event_is_set(FreeField event) const;

  /// At one look, which an answer given without `_lock` may be.
  bool is_closed() const { return state_of(value_of(Field::kState).get()) == State::kClosed; }

  /// Any field, for `HeldLock`, and where the interpreter's lock is enough.
  Ref value_of(Field field) const;
  PyObject*& at(Field field) noexcept { return fields[static_cast<std::size_t>(field)]; }
  PyObject* at(Field field) const noexcept { return fields[static_cast<std::size_t>(field)]; }

  /// Calls one of the manager's own methods through the instance.
  Ref call_own(const python::Name& method, std::initializer_list<PyObject*> arguments = {});

  /// New objects of the program's Python: `threading.Event()`, `threading.Lock()`.
  static Ref new_event();
  static Ref new_lock();
};

/// Creates the interned texts of states and modes. Called once, when the module is executed.
void make_manager_texts();

/// Learns which facilities of Python the fast path may read without calling them. Called once, with the
/// class.
void know_own_members(PyTypeObject* manager_type);

/// Whether `_poll_for_reauth` is the class's own, on this instance too.
bool has_own_poll(PyObject* manager);

PyObject* state_text(State state) noexcept;
PyObject* proactive_mode() noexcept;
PyObject* era_change_mode() noexcept;

/// Whether an event is set, as the event itself says.
bool is_set(PyObject* event);

/// What a failed flow leaves for those who waited: the failure itself when it is an AuthError, else an
/// AuthError whose reason is its text; the failure itself too where memory for another is short.
Ref recorded_error(const python::Error& error) noexcept;

/// Whether the failure is an AuthError that ends renewal for good.
bool is_permanent(const python::Error& error) noexcept;

}  // namespace tessaline::auth
