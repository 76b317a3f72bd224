/* A flow and the store of what it brings. The server is honest and may be late: once it has given a token of an
 * era it gives no older one, and it may or may not have reached an era when the host announces it. */

#define MEETS_ERA(got) (pending_era == 0 || (got) >= pending_era)

/* AuthManager::renew. `got` is an era, a failure, or DROPPED when the manager was closed meanwhile. */
#define DROPPED 8

#if BACK_OFF
#define BACK_OFF_AND_ON if :: skip :: backing_off = 1; backing_off = 0 fi;
#else
#define BACK_OFF_AND_ON
#endif

/* AuthManager::do_auth_flow, without the lock. The answer that counts is the one to the verification. */
inline flow(got) {
  BACK_OFF_AND_ON    /* request_with_retry between two tries */
  atomic {
    if
    :: got = server_era
    :: server_era < 1 + ERAS -> server_era++; got = server_era
    :: got = TRANSIENT
    :: PERMANENT_FAILURES -> got = PERMANENT
    fi
  }
}

/* AuthManager::do_auth_flow_matching_pending_era; the pending era is read under the lock. */
inline flow_matching_pending_era(got) {
  flow(got);
  if
  :: atomic {
      got != TRANSIENT && got != PERMANENT && !GUARD(first_token_meets_era, MEETS_ERA(got)) -> assert(!MEETS_ERA(got))
    };
    flow(got);
    if
    :: atomic {
        got != TRANSIENT && got != PERMANENT && !GUARD(second_token_meets_era, MEETS_ERA(got)) ->
        assert(!MEETS_ERA(got));
        got = TRANSIENT
      }
    :: else
    fi
  :: else
  fi
}

/* require_era_announced_since and store_auth_result, under the lock. Leaves TRANSIENT in `got` on refusal. */
inline store_unless_overtaken(got, era_before, flies) {
  if
  :: GUARD(overtaken_by_announcement, highest_era != era_before && got < highest_era) ->
    assert(got < highest_era);
    got = TRANSIENT
  :: else ->
    if
    :: GUARD(store_refuses_old_era, pending_era != 0 && got < pending_era) ->
      assert(got < pending_era);
      got = TRANSIENT
    :: else ->
      assert(state != CLOSED);    /* nothing is stored any more */
      assert(got >= pending_era);
      flies = 0;
      flying--;
      stores++;
      token = stores;
      token_era = got;
      stored_at = now;
      state = AUTHENTICATED;
      permanent_error = 0;
      auth_error = NO_ERROR;
      failed_error = NO_ERROR;    /* drop_retired_errors */
      mode = NO_MODE;
      EFFECT(store_clears_pending_era, pending_era = 0);
      refresh_event = 0;
      if
      :: auth_event != 0 -> EFFECT(store_wakes_waiters, awake = awake | bit_of(auth_event))
      :: else
      fi;
      EFFECT(store_ends_refresh, refresh_done = 1)
    fi
  fi
}

inline renew(got, era_before, flies) {
  era_before = highest_era;
  flow_matching_pending_era(got);
  if
  :: got != TRANSIENT && got != PERMANENT ->
    atomic {
      if
      :: GUARD(renewal_drops_when_closed, state == CLOSED) -> assert(state == CLOSED); got = DROPPED
      :: else -> store_unless_overtaken(got, era_before, flies)
      fi
    }
  :: else
  fi
}
