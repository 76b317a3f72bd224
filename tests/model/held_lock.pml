/* The held lock: manager/held_lock.cpp. A section of the C++ under `_lock`, from its beginning to its end; what is
 * `atomic` otherwise is one look or store under the interpreter's lock. */

#define HELD_LOCK atomic

/* HeldLock::set_auth_event */
inline set_auth_event() {
  if
  :: attempt != 0 -> attempts[attempt].event = 1
  :: else
  fi
}
