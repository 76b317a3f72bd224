/* Announcements and the thread that answers them: manager/era.cpp. */

inline require_era(era) {
  required = pending_era;
  if
  :: GUARD(era_is_raised_only, pending_era == 0 || pending_era < era) -> pending_era = era
  :: else
  fi;
  assert(pending_era >= era && pending_era >= required);
  required = highest_era;
  if
  :: GUARD(highest_era_is_raised_only, highest_era < era) -> highest_era = era
  :: else
  fi;
  assert(highest_era >= era && highest_era >= required);
  required = 0;
  mode = ERA_CHANGE
}

/* settle_failure, under the lock */
inline settle_failed_era(own, got) {
  if
  :: GUARD(failed_era_leaves_closed_alone, state == CLOSED)
  :: else ->
    if
    :: GUARD(failed_era_is_newest, attempt != own) -> awake = awake | bit_of(own)
    :: else ->
      assert(attempt == own && state != CLOSED);
      if
      :: GUARD(era_failed_for_good, got == PERMANENT) -> permanent_error = 1; assert(got == PERMANENT)
      :: else
      fi;
      assert(got != PERMANENT || permanent_error);
      state = AUTHENTICATED;
      mode = NO_MODE;
      settle_attempt(own)
    fi
  fi
}

/* The host announces two eras in any order, either of them twice; it may stop at any moment. */
proctype host() {
  byte era, own, announcements, required;
  bit refused;

  do
  :: announcements < ERAS ->
    announcements++;
    if
    :: era = 1 + ERAS
    :: era = 2
    fi;
    atomic {    /* announce */
      own = 0;
      refused = 0;
      if
      :: GUARD(announcement_refused, state == CLOSED || state == UNINITIALIZED) ->
        assert(state == CLOSED || state == UNINITIALIZED);
        refused = 1
      :: else ->
        assert(state != CLOSED);
        require_era(era);
        if
        :: GUARD(running_attempt_meets_era, state == AUTHENTICATING || state == RE_AUTHENTICATING)
        :: else ->
          begin_attempt(own);
          state = RE_AUTHENTICATING;
          renewals_running++
        fi
      fi
    }
    if
    :: own != 0 ->
      EFFECT(announcement_wakes_loop, refresh_event = 1);
      era_thread_lives = 0;    /* another thread takes the slot */
      if
      :: atomic { era_thread_lives = 1; run era_thread() }    /* Thread.start */
      :: atomic { starts_to_fail > 0 -> starts_to_fail--; a_start_failed = 1 };
        atomic { flying--; settle_failed_era(own, TRANSIENT) }
      fi;
      renewals_running--
    :: else
    fi;
    atomic {
      if
      :: !refused && announced < era -> announced = era
      :: else
      fi
    }
  :: break
  od;
  ended++
}

/* AuthManager::background_reauth */
proctype era_thread() {
  byte own, got, era_before, mine, before;
  bit failed, flies = 1;

  own = attempt;
  renew(got, era_before, flies);
  if
  :: got == TRANSIENT || got == PERMANENT ->
    atomic {
      flying = flying - flies;
      flies = 0;
      settle_failed_era(own, got)
    }
  :: got == DROPPED
  :: else -> start_next_refresh()
  fi;
  era_thread_lives = 0
}
