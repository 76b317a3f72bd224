/* AuthManager::get_token, which token a caller gets: manager/full_path.cpp. */

inline serve_if_held() {
  assert(token != 0);
  assert(!after_close);
  assert(token_era >= not_before);    /* no token of an era that was over when the call began */
  assert(pending_era == 0);
  assert(!permanent_error)
}

/* The token is handed out, in the section under the lock where it was read. */
inline serve() {
  assert(state != CLOSED);
  serve_if_held()
}

/* Nobody is refused where nothing stands against serving the token. */
inline refuse() {
  assert(state != AUTHENTICATED || pending_era != 0 || permanent_error || auth_error || token == 0)
}

inline take_snapshot() {
  HELD_LOCK {
    not_before = announced;
    after_close = close_returned;
    seen_state = state;
    seen_token = token;
    seen_stored_at = stored_at;
    seen_permanent_error = permanent_error;
    running = (state == AUTHENTICATING || state == RE_AUTHENTICATING -> attempt : 0);
    seen_mode = mode;
    seen_pending_era = pending_era
  }
}

#define BACKING_OFF_STILL \
  (state == RE_AUTHENTICATING && mode == PROACTIVE && pending_era == 0 && !auth_error && \
   attempt == running && backing_off && token == seen_token && time < expired_at(stored_at) && \
   !permanent_error)

inline token_while_refresh_backs_off() {
  if
  :: atomic { GUARD(backing_off_at_sight, seen_mode == PROACTIVE && seen_pending_era == 0 && backing_off &&
                    seen_token != 0 && !seen_permanent_error && now < expired_at(seen_stored_at)) ->
      time = now
    };
    HELD_LOCK {
      if
      :: GUARD(backing_off_not_closed, state == CLOSED) -> refuse(); goto served
      :: else
      fi;
      if
      :: GUARD(backing_off_still, BACKING_OFF_STILL) ->
        assert(BACKING_OFF_STILL);
        serve();
        goto served
      :: else
      fi
    }
  :: skip
  fi
}

inline token_after_running_attempt() {
  running == 0 || wait_for(running);
  HELD_LOCK {
    if
    :: GUARD(awaited_not_closed, state == CLOSED) -> refuse()
    :: GUARD(awaited_era_met, pending_era != 0) -> refuse()
    :: GUARD(awaited_without_error, auth_error) -> refuse()
    :: GUARD(awaited_not_permanent, permanent_error) -> refuse()
    :: GUARD(awaited_token_held, token == 0) -> refuse()
    :: else ->
      assert(!auth_error);    /* the failure that was waited for is reported */
      serve()
    fi
  }
}

/* With nudge_and_wait. */
inline token_after_nudge() {
  refresh_waiters.count++;    /* RefreshWaiter */
  EFFECT(nudge_wakes_loop, refresh_event = 1);
  if
  :: HELD_LOCK {    /* stored_since */
      GUARD(nudged_refresh_is_over, stored_at != seen_stored_at) -> assert(stored_at != seen_stored_at)
    }
  :: HELD_LOCK { !GUARD(nudged_refresh_is_over, stored_at != seen_stored_at) -> skip };
    if
    :: refresh_done
    :: !PATIENT    /* ten seconds have passed */
    fi
  fi;
  release_refresh_waiter(clearing);
  HELD_LOCK {
    if
    :: GUARD(nudged_not_closed, state == CLOSED) -> refuse()
    :: GUARD(nudged_era_met, pending_era != 0) -> refuse()
    :: GUARD(nudged_not_permanent, permanent_error) -> refuse()
    :: GUARD(nudged_token_held, token == 0) -> refuse()
    :: else ->
      assert(time < expired_at(seen_stored_at) || token != seen_token);    /* one found expired is polled for */
      serve()
    fi
  }
}

inline token_after_expiry() {
  if
  :: GUARD(expired_not_permanent, seen_permanent_error) -> assert(seen_permanent_error); goto served
  :: else
  fi;
  EFFECT(expiry_wakes_loop, refresh_event = 1);
  fallback = refresh_pending;
  poll_after_expiry(fallback)
}

inline confirmed_token() {
  do
  :: HELD_LOCK {
      if
      :: GUARD(confirmed_not_closed, state == CLOSED) -> refuse(); break
      :: else
      fi;
      if
      :: GUARD(confirmed_not_renewing, state == RE_AUTHENTICATING) ->
        assert(state == RE_AUTHENTICATING);
        if
        :: GUARD(confirmed_event_is_new, attempt == 0 || wait_for(attempt)) ->
          assert(attempt == 0 || wait_for(attempt));
          break
        :: else -> running = attempt
        fi
      :: else ->
        if
        :: GUARD(confirmed_era_met, pending_era != 0) -> refuse(); break
        :: GUARD(confirmed_not_permanent, permanent_error) -> refuse(); break
        :: GUARD(confirmed_authenticated, state != AUTHENTICATED) ->
          assert(state != AUTHENTICATED && state != RE_AUTHENTICATING);    /* renewals are waited for */
          break
        :: else
        fi;
        if
        :: GUARD(confirmed_token_held, token == 0) -> refuse()
        :: else ->
          assert(state == AUTHENTICATED);
          assert(token != seen_token || time < due_at(stored_at));    /* due ones are renewed first */
          serve()
        fi;
        break
      fi
    };
    wait_for(running)
  od
}

inline token_of_authenticated() {
  atomic {
    if
    :: GUARD(snapshot_without_pending_era, seen_pending_era != 0) -> assert(seen_pending_era != 0); goto served
    :: else
    fi;
    time = now;
    if
    :: GUARD(token_expired, seen_token != 0 && time >= expired_at(seen_stored_at)) ->
      assert(time >= expired_at(seen_stored_at));
      goto expired
    :: else
    fi
  }
  HELD_LOCK {    /* auth_time_if_refresh_due */
    seen_stored_at = stored_at;
    if
    :: GUARD(refresh_due, time >= due_at(stored_at)) -> goto due
    :: else
    fi;
    if
    :: GUARD(snapshot_has_token, seen_token == 0) -> assert(seen_token == 0); goto served
    :: else
    fi
  }
  confirmed_token();
  goto served;
expired:
  token_after_expiry();
  goto served;
due:
  token_after_nudge()
}

proctype get_token() {
  mtype seen_state, seen_mode;
  byte seen_token, running, seen_pending_era, seen_stored_at, time, not_before;
  bit seen_permanent_error, after_close, fallback, clearing;

  token_if_healthy();
  take_snapshot();
  if
  :: seen_state == CLOSED || seen_state == UNINITIALIZED
  :: seen_state == AUTHENTICATING || seen_state == RE_AUTHENTICATING ->
    token_while_refresh_backs_off();
    token_after_running_attempt()
  :: seen_state == AUTHENTICATED -> token_of_authenticated()
  fi;
served:    /* or refused */
  ended++
}
