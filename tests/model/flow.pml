/* A flow: manager/flow.cpp. The server is honest and may be late: once it has given a token of an era it gives no
 * older one, and it may or may not have reached an era when the program announces it. */

#define MEETS_ERA(got) (pending_era == 0 || (got) >= pending_era)

#if BACK_OFF
#define BACK_OFF_AND_ON if :: skip :: backing_off = 1; backing_off = 0 fi;
#else
#define BACK_OFF_AND_ON
#endif

/* AuthManager::do_auth_flow, without the lock. The answer that counts is the one to the verification. */
inline do_auth_flow(got) {
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
inline do_auth_flow_matching_pending_era(got) {
  do_auth_flow(got);
  if
  :: HELD_LOCK {
      !failed_with(got) && !GUARD(first_token_meets_era, MEETS_ERA(got)) -> assert(!MEETS_ERA(got))
    };
    do_auth_flow(got);
    if
    :: HELD_LOCK {
        !failed_with(got) && !GUARD(second_token_meets_era, MEETS_ERA(got)) ->
        assert(!MEETS_ERA(got));
        got = TRANSIENT
      }
    :: else
    fi
  :: else
  fi
}
