/* What a failure changes: manager/settle.cpp. */

/* The state after a failure. */
inline leave_attempt(own, run_as) {
  if
  :: run_as == kLogin ->
    if
    :: GUARD(failed_login_still_authenticating, state == AUTHENTICATING) ->
      assert(state == AUTHENTICATING);
      state =
        (GUARD(token_held_before_login, attempts[own].follows_token && token != 0) -> AUTHENTICATED : UNINITIALIZED);
      assert(state != UNINITIALIZED || token == 0 || !attempts[own].follows_token);
      assert(state != AUTHENTICATED || attempts[own].follows_token);
      mode = NO_MODE
    :: else
    fi
  :: run_as == kRenewal ->
    state = (GUARD(era_pending_after_failed_refresh, pending_era == 0) -> UNINITIALIZED : AUTHENTICATED);
    assert(pending_era == 0 || state == AUTHENTICATED);
    mode = NO_MODE
  :: run_as == kEraChange -> state = AUTHENTICATED; mode = NO_MODE
  fi
}

/* AuthManager::record_failure, under the lock. */
inline record_failure() {
  auth_error = 1;
  EFFECT(settling_wakes_waiters, set_auth_event())
}

/* AuthManager::settle_failure */
inline settle_failure(own, run_as, got) {
  HELD_LOCK {
    in_flight = (in_flight == own -> 0 : in_flight);
    if
    :: GUARD(failure_leaves_closed_alone, state == CLOSED)
    :: else ->
      attempts[own].failure = 1;
      attempts[own].phase = (attempts[own].phase == kBegun -> kEnded : attempts[own].phase);
      if
      :: GUARD(failed_attempt_is_current, attempt != own)
      :: else ->
        assert(attempt == own && state != CLOSED);    /* undoes nothing that came after it */
        if
        :: run_as != kLogin && GUARD(failed_for_good, got == PERMANENT) ->
          permanent_error = 1;
          assert(got == PERMANENT)
        :: else
        fi;
        assert(run_as == kLogin || got != PERMANENT || permanent_error);
        leave_attempt(own, run_as);
        record_failure();
        if
        :: run_as == kRenewal -> EFFECT(failure_ends_refresh, refresh_done = 1)
        :: else
        fi
      fi
    fi
  }
  atomic {    /* wake_waiters_of, where close() does not */
    if
    :: run_as == kLogin || attempt != own || state != CLOSED ->
      EFFECT(settling_wakes_waiters, attempts[own].event = 1)
    :: else
    fi
  }
}
