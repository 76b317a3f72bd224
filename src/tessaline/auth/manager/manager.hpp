#pragma once

#include <Python.h>

#include <array>
#include <cstddef>

#include "tessaline/auth/constants.hpp"
#include "tessaline/auth/manager/fields.hpp"
#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/name.hpp"
#include "tessaline/auth/python/ref.hpp"
#include "tessaline/auth/python/scoped_lock.hpp"
#include "tessaline/auth/wallet/wallet_key.hpp"

namespace tessaline::auth {

using python::Ref;

/// One wallet identity at one server: the object that the host sees as `AuthManager`.
///
///            authenticate()                        stored
///   UNINITIALIZED ───────────► AUTHENTICATING ───────────────► AUTHENTICATED ◄──┐
///        ▲  ▲                    │         ▲   authenticate()   │   │           │ stored; failed with an
///        │  └────────────────────┘         └────────────────────┘   │           │ era pending
///        │   failed, no token held                    refresh due,  ▼           │
///        │                                            era announced RE_AUTHENTICATING
///        └──────────────────────────────────────────────────────────┘
///                         refresh failed, no era pending
///
/// close() leads from every state to CLOSED, and nothing leads out of it.
///
/// `_lock` guards the fields. It is held for short reads and stores only, never across a request, a sleep,
/// the wait for an event or a join; what is handed out after a wait is read again under it. Methods run with
/// the interpreter's lock and may be called from any thread.
struct AuthManager {
  PyObject_HEAD std::array<PyObject*, kFieldCount> fields;
  std::array<PyObject*, kHiddenCount> hidden;
  PyObject* dict;              ///< the instance's `__dict__`; null until used
  wallet::WalletKey* key;      ///< null once wiped
  unsigned long lock_owner;    ///< the thread that holds `_lock` through `Locked`, or 0
  unsigned long flow_thread;   ///< the thread that runs the flow begun last, or 0
  bool close_deferred;         ///< `close` was called by code that ran under `_lock`
  unsigned long attempt;       ///< number of the attempt begun last
  unsigned long generation;    ///< of the process that the lock and the threads belong to
  int renewals_running;        ///< refreshes not yet settled, announcements that start their thread
  int refresh_waiters;         ///< callers about to wait, or waiting, for `_refresh_done`
  bool refresh_done_is_stale;  ///< to be cleared when the last of them has gone

  // Construction.
  void construct(PyObject* private_key, PyObject* server_url, PyObject* invite_code,
                 PyObject* register_wallet, PyObject* clock, PyObject* transport);

  // Login.
  Ref do_auth_flow();
  Ref do_auth_flow_matching_pending_era();
  Ref store_auth_result(PyObject* token, PyObject* wallet_secret);
  Ref compute_refresh_at(PyObject* auth_time);
  Ref raise_if_pending_era_locked();
  Ref authenticate();

  // Background renewal.
  Ref start_refresh();
  Ref refresh_loop();
  Ref do_refresh();

  /// Runs a flow and stores its result; false when the manager was closed meanwhile.
  bool renew();

  /// Whether the state is RE_AUTHENTICATING with no thread working on it. Called under `_lock`.
  bool reauthentication_is_orphaned();

  /// Starts a refresh thread where the manager is authenticated and none lives.
  void revive_refresh();

  /// Hands over to the next refresh thread on a background thread, which has nobody to raise to.
  void start_next_refresh();

  /// Leaves nobody waiting for a refresh thread that could not be started.
  void record_unstarted_refresh(const python::Error& error);
  Ref new_daemon_thread(const python::Name& method);

  // The private key as the host sees it: 64 hexadecimal digits, or None.
  Ref private_key() const;
  void set_private_key(PyObject* value);
  void wipe_key() noexcept;

  // Serving.
  Ref get_token();
  Ref poll_for_reauth(bool fallback_to_current_token);
  Ref get_wallet_secret();
  Ref get_token_expiry();
  Ref get_wallet_address();

  /// The token at once where nothing stands against serving it; else empty, which says nothing yet.
  Ref token_if_healthy();

  /// Called under `_lock`.
  void raise_if_pending_era();
  void raise_if_renewal_is_hopeless() const;

  /// A token that has replaced `old_token` and may be served; else empty. Called under `_lock`.
  Ref renewed_token(PyObject* old_token);

  // Eras.
  Ref notify_era_change(PyObject* new_era_number);
  Ref background_reauth();

  /// Ends the attempt with this event as failed if the era-change thread that ran it is gone: the interpreter
  /// ends a thread that finds no memory before its first line, and tells nobody.
  void settle_lost_reauthentication(PyObject* event);

  // Profile and shutdown.
  Ref set_display_name(PyObject* display_name);
  Ref close();

  /// Class, address, server and state; nothing secret.
  Ref represent();

  // Stored errors.

  /// Raises a stored error, as the same object. Its traceback starts from what it was when it was first
  /// raised again: a manager that refuses for hours would otherwise keep every refused caller's frames alive.
  [[noreturn]] void raise_again(PyObject* error);

  /// Stores what an attempt that failed leaves: for the next caller, and for those who waited for this
  /// attempt and may look only after another has begun. Called under `_lock`; sets the attempt's event.
  void settle_attempt(PyObject* recorded);

  /// Raises "era_mismatch" for the token of a flow that began before an era was announced which it does not
  /// meet, also where another flow has met it since. `era_before`: the highest era when the flow began.
  /// Called under `_lock`.
  void require_era_announced_since(PyObject* era_before, PyObject* token);
  Ref highest_era();

  /// The recorded failure of the attempt with this event, the last error otherwise; or None.
  Ref outcome_of(PyObject* event);

  /// Lets go of errors that are stored no more. Called without `_lock`: their frames may own anything.
  void drop_retired_errors() noexcept;
  void retire(Ref error) noexcept;

  // Forks.

  /// Makes the manager fit for a child process on its first use there: lock and events anew, no thread, the
  /// token still served, and renewal started again. A close that had begun is finished.
  void settle_in_child();

  // Waiting and locking.

  /// Waits for the end of the attempt with this event. Raises RuntimeError where it would never come: on the
  /// thread that runs the flow, in a transport, a log handler or a signal handler.
  void wait_for_flow(PyObject* event);

  void finish_deferred_close() noexcept;

  /// The state CLOSED, and the rest of the shutdown. The first is called under `_lock`.
  void mark_closed() noexcept;
  void complete_close();

  // Fields.
  PyObject* object() noexcept { return reinterpret_cast<PyObject*>(this); }

  /// The field's value; AttributeError where it was deleted or never set.
  Ref get(Field field) const;
  void set(Field field, Ref value) noexcept;
  void set(Field field, bool value) noexcept { set(field, Ref::boolean(value)); }
  bool is_none(Field field) const;
  bool is_true(Field field) const;

  State state() const;
  void set_state(State state) noexcept;
  bool closed() const { return state() == State::kClosed; }
  void raise_if_closed() const;

  // Events and time.
  void set_event(Field event);
  void clear_event(Field event);
  void clear_refresh_done();
  bool event_is_set(Field event) const;

  /// Calls one of the manager's own methods through the instance.
  Ref call_own(const python::Name& method, std::initializer_list<PyObject*> arguments = {});

  /// New host objects: `threading.Event()`, `threading.Lock()`.
  static Ref new_event();
  static Ref new_lock();

  PyObject*& at(Field field) noexcept { return fields[static_cast<std::size_t>(field)]; }
  PyObject*& at(Hidden slot) noexcept { return hidden[static_cast<std::size_t>(slot)]; }
};

/// Holds the manager's `_lock` for a block. Raises RuntimeError where this thread holds it already: a signal
/// handler, a finalizer or a clock that ran meanwhile would wait for itself.
class Locked {
 public:
  explicit Locked(AuthManager& manager);
  ~Locked();
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  struct Afterwards {
    explicit Afterwards(AuthManager& locked);
    ~Afterwards();
    AuthManager& manager;
  };

  Afterwards afterwards_;
  python::ScopedLock lock_;
};

/// Whether the calling thread holds `_lock` through `Locked`.
bool holds_lock(const AuthManager& manager) noexcept;

/// Notes the calling thread as the one that runs a flow, for a block.
class FlowOnThread {
 public:
  explicit FlowOnThread(AuthManager& manager) noexcept;
  ~FlowOnThread();
  FlowOnThread(const FlowOnThread&) = delete;
  FlowOnThread& operator=(const FlowOnThread&) = delete;

 private:
  AuthManager& manager_;
  const bool nested_;
};

/// Takes back, at the end of a block, what was added to `renewals_running` under the lock.
class RenewalRunning {
 public:
  explicit RenewalRunning(AuthManager& manager) noexcept : manager_(manager) {}
  ~RenewalRunning();
  RenewalRunning(const RenewalRunning&) = delete;
  RenewalRunning& operator=(const RenewalRunning&) = delete;

 private:
  AuthManager& manager_;
};

/// Creates the interned texts of states and modes. Called once, when the module is executed.
void make_manager_texts();

/// Learns which host facilities the fast path may read without calling them. Called once, with the class.
void know_host(PyTypeObject* manager_type);

PyObject* state_text(State state) noexcept;
PyObject* proactive_mode() noexcept;
PyObject* era_change_mode() noexcept;

/// What a failed flow leaves for those who waited: the failure itself when it is an AuthError, else an
/// AuthError whose reason is its text; the failure itself too where memory for another is short.
Ref recorded_error(const python::Error& error) noexcept;

/// Whether the failure is an AuthError after which renewal is hopeless.
bool is_permanent(const python::Error& error) noexcept;

}  // namespace tessaline::auth
