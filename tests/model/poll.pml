/* AuthManager::poll_after_expiry: manager/after_expiry.cpp. */

#define RENEWED_TOKEN \
  (state == AUTHENTICATED && pending_era == 0 && !permanent_error && token != 0 && token != seen_token && \
   now < expired_at(stored_at))

inline token_after_attempt(running) {
  running == 0 || wait_for(running);
  HELD_LOCK {
    if
    :: GUARD(polled_not_closed, state == CLOSED) -> refuse()
    :: GUARD(polled_era_met, pending_era != 0) -> refuse()
    :: GUARD(polled_not_permanent, permanent_error) -> refuse()
    :: GUARD(polled_token_held, token == 0) -> refuse()
    :: else -> serve()
    fi
  }
}

inline token_after_looking(fallback) {
  HELD_LOCK {
    if
    :: GUARD(poll_ran_out_era_met, pending_era != 0) -> refuse()
    :: GUARD(poll_ran_out_not_permanent, permanent_error) -> refuse()
    :: GUARD(poll_ran_out_without_refresh, !fallback || token == 0) -> assert(!fallback || state == CLOSED)
    :: else ->
      assert(fallback);
      serve_if_held()
    fi
  }
}

/* Sleeps and looks. Looks that find nothing change nothing: only the last one counts. */
inline poll_after_expiry(fallback) {
  if
  :: HELD_LOCK { GUARD(poll_sees_renewal, state == RE_AUTHENTICATING) ->
      assert(state == RE_AUTHENTICATING);
      running = attempt
    };
    token_after_attempt(running)
  :: HELD_LOCK { state != RE_AUTHENTICATING && GUARD(poll_sees_permanent, permanent_error) -> refuse() }
  :: HELD_LOCK { state != RE_AUTHENTICATING && GUARD(poll_sees_close, state == CLOSED) -> refuse() }
  :: HELD_LOCK { GUARD(poll_sees_renewed, RENEWED_TOKEN) -> assert(RENEWED_TOKEN); serve() }
  :: HELD_LOCK {
      state != RE_AUTHENTICATING && !permanent_error && state != CLOSED && !RENEWED_TOKEN -> skip
    };
    token_after_looking(fallback)
  fi
}
