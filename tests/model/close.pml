/* How it ends: manager/close.cpp. */

/* AuthManager::mark_closed, under the lock */
inline mark_closed() {
  state = CLOSED;
  mode = NO_MODE;
  pending_era = 0
}

inline wake_waiters() {
  HELD_LOCK {
    if
    :: GUARD(close_finds_waiters, attempt != 0) ->
      auth_error = 1;
      EFFECT(close_wakes_waiters, set_auth_event())
    :: else
    fi
  }
}

/* AuthManager::complete_close */
inline complete_close() {
  atomic {    /* each has other readers, and who reads two of them sees CLOSED first */
    EFFECT(close_sets_close_event, close_event = 1);
    EFFECT(close_sets_refresh_stop, refresh_stop = 1);
    EFFECT(close_wakes_loop, refresh_event = 1);
    EFFECT(close_ends_refresh, refresh_done = 1)
  }
  wake_waiters();
  atomic {    /* forget_credentials; refresh_thread changes no more */
    token = 0;
    token_era = 0;
    thread = refresh_thread
  }
  HELD_LOCK { attempt = 0 }    /* forget_last_attempt */
  if    /* join_refresh_thread */
  :: thread == 0 || !lives(thread)
  :: !PATIENT
  fi;
  atomic { refresh_thread = 0; close_returned = 1 }
}

proctype close() {
  byte thread;

  HELD_LOCK { mark_closed() }
  complete_close();
  ended++
}
