/* Who may log in, and who waits: manager/authenticate.cpp. */

/* Leaves the attempt to run in `own`, or the one to wait for in `awaited`. */
inline admit() {
  HELD_LOCK {
    own = 0; awaited = 0;
    if
    :: GUARD(login_sees_close, state == CLOSED) -> assert(state == CLOSED)
    :: else ->
      if
      :: GUARD(login_joins_running_attempt, state == AUTHENTICATING || state == RE_AUTHENTICATING) ->
        assert(in_flight != 0);    /* there is somebody to wait for */
        awaited = attempt;
        stores_before = stores
      :: else ->
        assert(state != CLOSED);
        begin_attempt(own, kLogin, kRunning, AUTHENTICATING, NO_MODE)
      fi
    fi
  }
}

/* With AuthManager::outcome_of. */
inline raise_outcome_of(awaited) {
  HELD_LOCK {
    if
    :: GUARD(outcome_is_of_own_attempt, attempt != awaited && state != CLOSED && attempts[awaited].failure) ->
      assert(attempts[awaited].failure)
    :: else ->
      if
      :: GUARD(joined_attempt_failed, (attempt == awaited || state == CLOSED) && auth_error) -> assert(auth_error)
      :: else -> assert(stores > stores_before)    /* success is reported where there was some */
      fi
    fi
  }
}

inline log_in() {
  atomic { succeeded = 0; era_before = highest_era }
  do_auth_flow(got);
  if
  :: !failed_with(got) ->
    HELD_LOCK {
      if
      :: GUARD(login_stores_nothing_when_closed, state == CLOSED) -> assert(state == CLOSED); got = TRANSIENT
      :: else -> store_unless_overtaken(got, era_before)
      fi
    }
    if
    :: got != TRANSIENT -> start_refresh(mine, before, failed); succeeded = !failed
    :: else
    fi
  :: else
  fi
}

proctype authenticate(byte calls) {
  byte own, awaited, got, era_before, mine, before, stores_before;
  bit failed, succeeded;

  do
  :: calls > 0 ->
    calls--;
    admit();
    if
    :: awaited != 0 -> wait_for(awaited); raise_outcome_of(awaited)
    :: own != 0 ->
      log_in();
      if
      :: !succeeded -> settle_failure(own, kLogin, got); revive_refresh()
      :: else -> EFFECT(login_wakes_its_waiters, attempts[own].event = 1)    /* wake_waiters_of */
      fi;
      attempts[own].phase = kEnded
    :: else
    fi
  :: else -> break
  od;
  ended++
}
