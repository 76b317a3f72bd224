/* The manager's state machine, as its threads see it.
 *
 * An `atomic` sequence stands for one section of the C++ under `_lock`, or for one look or store under the
 * interpreter's lock; each names its function. Between them any other thread may run. GUARD marks a decision of
 * the C++ and EFFECT a store or signal, so that each can be taken out to see whether that is noticed.
 *
 * A configuration (tools/model) says how many callers, announcements, clock ticks and failures there are. */

#include "numbers.h"    /* written by check.py */
c_decl {
\#include "mutation.h"
}
#define GUARD(name, condition) \
  ((c_expr { intact[M_##name] } && (condition)) || (c_expr { negated[M_##name] } && !(condition)) || \
   c_expr { always[M_##name] })
#define EFFECT(name, statement) \
  if \
  :: c_expr { intact[M_##name] } -> statement \
  :: else \
  fi

#include "fields.pml"
#include "flow.pml"
#include "renewal.pml"
#include "login.pml"
#include "era.pml"
#include "serving.pml"
#include "shutdown.pml"

/* The manager's clock; it need not go on. */
proctype clock() {
  do
  :: now < TICKS -> now++
  :: break
  od;
  ended++
}

init {
  byte count;
  atomic {
    if
    :: LOGGED_IN ->
      attempt = 1; auth_event = 1; awake = bit_of(1);
      stores = 1; token = 1; token_era = 1; state = AUTHENTICATED;
      threads = 1; newest_thread = 1; refresh_thread = 1; living = bit_of(1);
      run refresher(1)
    :: else
    fi;
    count = 0;
    do
    :: count < GETTERS -> run getter(); count++
    :: else -> break
    od;
    count = 0;
    do
    :: count < LOGINS -> run login(LOGIN_CALLS); count++
    :: else -> break
    od;
    if
    :: ERAS > 0 -> run host()
    :: else -> ended++
    fi;
    if
    :: TICKS > 0 -> run clock()
    :: else -> ended++
    fi;
    if
    :: CLOSES -> run closer()
    :: else
    fi;
    count = 0
  }
  /* Nothing moves any more: every call and every attempt has ended. */
  atomic {
    timeout ->
    assert(ended == GETTERS + LOGINS + 2 + CLOSES);
    assert(state != AUTHENTICATING && state != RE_AUTHENTICATING);
    assert(flying == 0 || state == CLOSED);
    assert(renewals_running == 0 && refresh_waiters == 0 && !era_thread_lives && !backing_off);
    assert(!CLOSES || (state == CLOSED && living == 0 && token == 0));
    assert(a_start_failed || living == bit_of(last_of(living)) || living == 0);    /* superseded loops have ended */
    /* Renewal goes on where the contract has it go on. */
    assert(state != AUTHENTICATED || pending_era != 0 || a_start_failed || lives(refresh_thread));
    /* An era that is still pending has been tried for. */
    assert(pending_era == 0 || auth_error != NO_ERROR)
  }
}
