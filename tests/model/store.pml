/* What a result changes: manager/store.cpp. */

/* AuthManager::store_auth_result, under the lock. Leaves TRANSIENT in `got` on refusal. */
inline store_auth_result(got) {
  if
  :: GUARD(store_refuses_old_era, pending_era != 0 && got < pending_era) ->
    assert(got < pending_era);
    got = TRANSIENT
  :: else ->
    assert(state != CLOSED);    /* nothing is stored any more */
    assert(got >= pending_era);
    in_flight = 0;
    stores++;
    token = stores;
    token_era = got;
    stored_at = now;
    state = AUTHENTICATED;
    permanent_error = 0;
    auth_error = 0;
    mode = NO_MODE;
    EFFECT(store_clears_pending_era, pending_era = 0);
    refresh_event = 0;
    EFFECT(store_wakes_waiters, set_auth_event());
    EFFECT(store_ends_refresh, refresh_done = 1)
  fi
}

/* require_era_announced_since, and the store. */
inline store_unless_overtaken(got, era_before) {
  if
  :: GUARD(overtaken_by_announcement, highest_era != era_before && got < highest_era) ->
    assert(got < highest_era);
    got = TRANSIENT
  :: else -> store_auth_result(got)
  fi
}
