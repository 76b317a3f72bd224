/* get_token and the poll: manager/serving.cpp, fast_path.cpp, poll.cpp. */

/* token_if_healthy */
#define FAST_PATH \
  (GUARD(fast_if_authenticated, state == AUTHENTICATED) && GUARD(fast_if_era_met, pending_era == 0) && \
   GUARD(fast_if_not_permanent, !permanent_error) && GUARD(fast_if_fresh, now < due_at(stored_at)) && \
   GUARD(fast_if_held, token != 0))

/* Serving::backing_off_still */
#define BACKING_OFF_STILL \
  (state == RE_AUTHENTICATING && mode == PROACTIVE && pending_era == 0 && auth_error == NO_ERROR && \
   auth_event == seen_event && backing_off && token == seen_token && time < expired_at(stored_at) && \
   !permanent_error)

/* AuthManager::renewed_token */
#define RENEWED \
  (state == AUTHENTICATED && pending_era == 0 && !permanent_error && token != 0 && token != seen_token && \
   now < expired_at(stored_at))

/* ~RefreshWaiter */
#define RELEASE_REFRESH_WAITER \
  atomic { refresh_waiters--; clearing = GUARD(refresh_done_is_stale, refresh_done_is_stale) }; \
  if \
  :: clearing -> atomic { clear_refresh_done() } \
  :: else \
  fi

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
  assert(state != AUTHENTICATED || pending_era != 0 || permanent_error || auth_error != NO_ERROR || token == 0)
}

proctype getter() {
  mtype seen_state, seen_mode;
  byte seen_token, seen_event, seen_pending_era, seen_error, seen_stored_at, time, event, not_before;
  bit seen_permanent_error, after_close, fallback, clearing;

  /* The fast path; an injected clock or a replaced method leads past it. */
  if
  :: atomic { FAST_PATH ->
      not_before = announced;
      after_close = close_returned;
      time = now;
      assert(time < due_at(stored_at) && token != 0);
      serve();
      goto served
    }
  :: skip
  fi;

  atomic {    /* take_snapshot */
    not_before = announced;
    after_close = close_returned;
    seen_state = state;
    seen_token = token;
    seen_stored_at = stored_at;
    seen_permanent_error = permanent_error;
    seen_event = auth_event;
    seen_mode = mode;
    seen_pending_era = pending_era;
    seen_error = auth_error
  }
  if
  :: seen_state == CLOSED || seen_state == UNINITIALIZED -> goto failed
  :: seen_state == AUTHENTICATING || seen_state == RE_AUTHENTICATING -> goto attempt_running
  :: seen_state == AUTHENTICATED -> skip
  fi;

  /* token_of_authenticated */
  atomic {
    if
    :: GUARD(snapshot_without_pending_era, seen_pending_era != 0) -> assert(seen_pending_era != 0); goto failed
    :: else
    fi;
    time = now;
    if
    :: GUARD(token_expired, seen_token != 0 && time >= expired_at(seen_stored_at)) ->
      assert(time >= expired_at(seen_stored_at));
      goto token_after_expiry
    :: else
    fi
  }
  atomic {    /* auth_time_if_refresh_due */
    seen_stored_at = stored_at;
    if
    :: GUARD(refresh_due, time >= due_at(stored_at)) -> goto token_after_nudge
    :: else
    fi;
    if
    :: GUARD(snapshot_has_token, seen_token == 0) -> assert(seen_token == 0); goto failed
    :: else
    fi
  }
  do    /* confirmed_token */
  :: atomic {
      if
      :: GUARD(confirmed_not_closed, state == CLOSED) -> refuse(); goto failed
      :: else
      fi;
      if
      :: GUARD(confirmed_not_renewing, state == RE_AUTHENTICATING) ->
        assert(state == RE_AUTHENTICATING);
        if
        :: GUARD(confirmed_event_is_new, auth_event == 0 || is_set(auth_event)) ->
          assert(auth_event == 0 || is_set(auth_event));
          goto failed
        :: else -> event = auth_event
        fi
      :: else ->
        if
        :: GUARD(confirmed_era_met, pending_era != 0) -> refuse(); goto failed
        :: GUARD(confirmed_not_permanent, permanent_error) -> refuse(); goto failed
        :: GUARD(confirmed_authenticated, state != AUTHENTICATED) ->
          assert(state != AUTHENTICATED && state != RE_AUTHENTICATING);    /* renewals are waited for */
          goto failed
        :: else
        fi;
        if
        :: GUARD(confirmed_token_held, token == 0) -> refuse(); goto failed
        :: else ->
          assert(state == AUTHENTICATED);
          assert(token != seen_token || time < due_at(stored_at));    /* due ones are renewed first */
          serve();
          goto served
        fi
      fi
    };
    is_set(event)    /* wait_for_flow */
  od;

attempt_running:
  if    /* token_while_refresh_backs_off */
  :: atomic { GUARD(backing_off_at_sight, seen_mode == PROACTIVE && seen_pending_era == 0 && backing_off &&
                    seen_token != 0 && !seen_permanent_error && now < expired_at(seen_stored_at)) ->
      time = now
    };
    atomic {
      if
      :: GUARD(backing_off_not_closed, state == CLOSED) -> refuse(); goto failed
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
  fi;
  seen_event == 0 || is_set(seen_event);    /* wait_for_flow */
  atomic {    /* token_after_running_authentication */
    if
    :: GUARD(awaited_not_closed, state == CLOSED) -> refuse(); goto failed
    :: GUARD(awaited_era_met, pending_era != 0) -> refuse(); goto failed
    :: GUARD(awaited_without_error, auth_error != NO_ERROR) -> refuse(); goto failed
    :: GUARD(awaited_not_permanent, permanent_error) -> refuse(); goto failed
    :: GUARD(awaited_token_held, token == 0) -> refuse(); goto failed
    :: else ->
      assert(auth_error == NO_ERROR);    /* the failure that was waited for is reported */
      serve();
      goto served
    fi
  }

token_after_nudge:
  refresh_waiters++;    /* RefreshWaiter */
  EFFECT(nudge_wakes_loop, refresh_event = 1);
  if
  :: atomic {    /* stored_since */
      GUARD(nudged_refresh_is_over, stored_at != seen_stored_at) -> assert(stored_at != seen_stored_at)
    }
  :: atomic { !GUARD(nudged_refresh_is_over, stored_at != seen_stored_at) -> skip };
    if
    :: refresh_done
    :: !PATIENT    /* ten seconds have passed */
    fi
  fi;
  RELEASE_REFRESH_WAITER;
  atomic {
    if
    :: GUARD(nudged_not_closed, state == CLOSED) -> refuse(); goto failed
    :: GUARD(nudged_era_met, pending_era != 0) -> refuse(); goto failed
    :: GUARD(nudged_not_permanent, permanent_error) -> refuse(); goto failed
    :: GUARD(nudged_token_held, token == 0) -> refuse(); goto failed
    :: else ->
      assert(time < expired_at(seen_stored_at) || token != seen_token);    /* one found expired is polled for */
      serve();
      goto served
    fi
  }

token_after_expiry:
  if
  :: GUARD(expired_not_permanent, seen_permanent_error) -> assert(seen_permanent_error); goto failed
  :: else
  fi;
  EFFECT(expiry_wakes_loop, refresh_event = 1);
  fallback = refresh_pending;

  /* poll_for_reauth. Looks that find nothing change nothing: only the last one counts. */
  if
  :: atomic { GUARD(poll_sees_renewal, state == RE_AUTHENTICATING) ->
      assert(state == RE_AUTHENTICATING);
      event = auth_event
    }
  :: atomic { state != RE_AUTHENTICATING && GUARD(poll_sees_permanent, permanent_error) -> refuse(); goto failed }
  :: atomic { state != RE_AUTHENTICATING && GUARD(poll_sees_close, state == CLOSED) -> refuse(); goto failed }
  :: atomic { GUARD(poll_sees_renewed, RENEWED) -> assert(RENEWED); serve(); goto served }
  :: atomic { state != RE_AUTHENTICATING && !permanent_error && state != CLOSED && !RENEWED -> skip };
    atomic {    /* token_after_poll_ran_out */
      if
      :: GUARD(poll_ran_out_era_met, pending_era != 0) -> refuse(); goto failed
      :: GUARD(poll_ran_out_not_permanent, permanent_error) -> refuse(); goto failed
      :: GUARD(poll_ran_out_without_refresh, !fallback || token == 0) ->
        assert(!fallback || state == CLOSED);
        goto failed
      :: else ->
        assert(fallback);
        serve_if_held();
        goto served
      fi
    }
  fi;
  event == 0 || is_set(event);    /* wait_for_flow */
  atomic {    /* token_after_reauth */
    if
    :: GUARD(polled_not_closed, state == CLOSED) -> refuse(); goto failed
    :: GUARD(polled_era_met, pending_era != 0) -> refuse(); goto failed
    :: GUARD(polled_not_permanent, permanent_error) -> refuse(); goto failed
    :: GUARD(polled_token_held, token == 0) -> refuse(); goto failed
    :: else -> serve(); goto served
    fi
  }

failed:
served:
  ended++
}
