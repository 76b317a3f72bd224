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

inline announce() {
  HELD_LOCK {
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
        begin_attempt(own, kEraChange, kBegun, RE_AUTHENTICATING, ERA_CHANGE)
      fi
    fi
  }
}

/* AuthManager::notify_era_change. The program announces two eras in any order, either of them twice; it may stop at
 * any moment. */
proctype notify_era_change() {
  byte era, own, announcements, required;
  bit refused;

  do
  :: announcements < ERAS ->
    announcements++;
    if
    :: era = 1 + ERAS
    :: era = 2
    fi;
    announce();
    if
    :: own != 0 ->
      EFFECT(announcement_wakes_loop, refresh_event = 1);
      if
      :: run background_reauth()    /* Thread.start */
      :: atomic { starts_to_fail > 0 -> starts_to_fail--; a_start_failed = 1 };
        settle_failure(own, kEraChange, TRANSIENT)
      fi
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

proctype background_reauth() {
  byte own, got, era_before, mine, before;
  bit failed;

  atomic { own = attempt; attempts[own].phase = kRunning };
  renew(own, kEraChange, got, era_before)
}
