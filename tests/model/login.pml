/* authenticate: manager/authenticate.cpp. */

#define WAKE_OWN_WAITERS EFFECT(login_wakes_its_waiters, awake = awake | bit_of(own))

/* wait_for_runner, with outcome_of */
inline wait_for_runner() {
  is_set(running);
  atomic {
    if
    :: GUARD(outcome_is_of_own_attempt,
             auth_event != running && state != CLOSED && failed_event == running && failed_error != NO_ERROR) ->
      assert(failed_event == running && failed_error != NO_ERROR)
    :: else ->
      if
      :: GUARD(joined_attempt_failed, auth_error != NO_ERROR) -> assert(auth_error != NO_ERROR)
      :: else -> assert(stores > stores_before)    /* success is reported where there was some */
      fi
    fi
  }
}

/* run_flow */
inline run_flow() {
  era_before = highest_era;
  flow(got);
  if
  :: got != TRANSIENT && got != PERMANENT ->
    atomic {
      if
      :: GUARD(login_stores_nothing_when_closed, state == CLOSED) -> assert(state == CLOSED); got = TRANSIENT
      :: else -> store_unless_overtaken(got, era_before, flies)
      fi
    }
    if
    :: got != TRANSIENT -> start_refresh(mine, before, failed); succeeded = !failed
    :: else
    fi
  :: else
  fi
}

/* What authenticate does after a failure: restore, wake_own_waiters, revive_refresh. */
inline recover() {
  atomic {
    flying = flying - flies;
    flies = 0;
    if
    :: GUARD(failed_login_is_newest, attempt != own)
    :: else ->
      if
      :: GUARD(failed_login_still_authenticating, state == AUTHENTICATING) ->
        assert(attempt == own && state != CLOSED);
        state = (GUARD(token_held_before_login, was_authenticated && token != 0) -> AUTHENTICATED : UNINITIALIZED);
        assert(state != UNINITIALIZED || token == 0 || !was_authenticated);
        assert(state != AUTHENTICATED || was_authenticated);
        mode = NO_MODE
      :: else
      fi;
      assert(attempt == own);    /* nor wakes anybody who waits for a later one */
      settle_attempt(own)
    fi
  }
  WAKE_OWN_WAITERS;
  if
  :: atomic { GUARD(revive_if_authenticated, state == AUTHENTICATED) -> assert(state == AUTHENTICATED) };
    if
    :: atomic { GUARD(revive_if_none_lives, !lives(newest_thread)) -> assert(!lives(newest_thread)) };
      start_refresh(mine, before, failed)
    :: else
    fi
  :: else
  fi
}

proctype login(byte calls) {
  byte own, running, got, era_before, mine, before, stores_before;
  bit was_authenticated, failed, flies, succeeded;

  do
  :: calls > 0 ->
    calls--;
    atomic {    /* admit */
      own = 0; running = 0; was_authenticated = 0; succeeded = 0;
      if
      :: GUARD(login_sees_close, state == CLOSED) -> assert(state == CLOSED)
      :: else ->
        if
        :: GUARD(login_joins_running_attempt, state == AUTHENTICATING || state == RE_AUTHENTICATING) ->
          assert(flying == 1);    /* there is somebody to wait for */
          running = auth_event;
          stores_before = stores
        :: else ->
          assert(state != CLOSED);
          was_authenticated = (state == AUTHENTICATED);
          begin_attempt(own);
          flies = 1;
          state = AUTHENTICATING;
          mode = NO_MODE
        fi
      fi
    }
    if
    :: running != 0 -> wait_for_runner()
    :: own != 0 ->
      run_flow();
      if
      :: !succeeded -> recover()
      :: else
      fi;
      WAKE_OWN_WAITERS
    :: else
    fi
  :: else -> break
  od;
  ended++
}
