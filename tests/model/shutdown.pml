/* close: manager/close.cpp. */

proctype closer() {
  byte thread;

  atomic {    /* enter_closed, mark_closed */
    state = CLOSED;
    mode = NO_MODE;
    pending_era = 0
  }
  atomic {    /* each has other readers, and who reads two of them sees CLOSED first */
    EFFECT(close_sets_close_event, close_event = 1);
    EFFECT(close_sets_refresh_stop, refresh_stop = 1);
    EFFECT(close_wakes_loop, refresh_event = 1);
    EFFECT(close_ends_refresh, refresh_done = 1)
  }
  atomic {    /* wake_waiters */
    if
    :: GUARD(close_finds_waiters, auth_event != 0) ->
      auth_error = CLOSED_ERROR;
      EFFECT(close_wakes_waiters, awake = awake | bit_of(auth_event))
    :: else
    fi
  }
  atomic {    /* forget_credentials; refresh_thread changes no more */
    token = 0;
    token_era = 0;
    thread = refresh_thread
  }
  if
  :: thread == 0 || !lives(thread)    /* join */
  :: !PATIENT
  fi;
  atomic { refresh_thread = 0; close_returned = 1; ended++ }
}
