/* The manager's state machine, as its threads see it.
 *
 * Files, processes and functions bear the names of the C++. A HELD_LOCK sequence stands for one section of it under
 * `_lock`, an `atomic` one for one look or store under the interpreter's lock; between them any other thread may run.
 * GUARD marks a decision of the C++ and EFFECT a store or signal, so that each can be taken out to see whether that
 * is noticed.
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

#include "held_lock.pml"
#include "fields.pml"
#include "attempt.pml"
#include "refresh_threads.pml"
#include "refresh_waiters.pml"
#include "flow.pml"
#include "store.pml"
#include "settle.pml"
#include "renewal.pml"
#include "refresh_loop.pml"
#include "authenticate.pml"
#include "era.pml"
#include "poll.pml"
#include "fast_path.pml"
#include "serving.pml"
#include "close.pml"

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
      attempt = 1; attempts[1].kind = kLogin; attempts[1].phase = kEnded; attempts[1].event = 1;
      stores = 1; token = 1; token_era = 1; state = AUTHENTICATED;
      threads = 1; refresh_threads.newest = 1; refresh_thread = 1; begun = bit_of(1); living = bit_of(1);
      run refresh_loop(1)
    :: else
    fi;
    count = 0;
    do
    :: count < GETTERS -> run get_token(); count++
    :: else -> break
    od;
    count = 0;
    do
    :: count < LOGINS -> run authenticate(LOGIN_CALLS); count++
    :: else -> break
    od;
    if
    :: ERAS > 0 -> run notify_era_change()
    :: else -> ended++
    fi;
    if
    :: TICKS > 0 -> run clock()
    :: else -> ended++
    fi;
    if
    :: CLOSES -> run close()
    :: else
    fi;
    count = 0
  }
  /* Nothing moves any more: every call and every attempt has ended. */
  atomic {
    timeout ->
    assert(ended == GETTERS + LOGINS + 2 + CLOSES);
    assert(state != AUTHENTICATING && state != RE_AUTHENTICATING);
    assert(in_flight == 0 || state == CLOSED);
    assert(refresh_waiters.count == 0 && !backing_off);
    for (count : 1 .. attempt) { assert(attempts[count].phase == kEnded) }
    assert(!CLOSES || (state == CLOSED && living == 0 && token == 0));
    assert(a_start_failed || living == bit_of(last_of(living)) || living == 0);    /* superseded loops have ended */
    /* Renewal goes on where the contract has it go on. */
    assert(state != AUTHENTICATED || pending_era != 0 || a_start_failed || lives(refresh_thread));
    /* An era that is still pending has been tried for. */
    assert(pending_era == 0 || auth_error)
  }
}
