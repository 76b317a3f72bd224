/* When and where a renewal runs: manager/renewal.cpp. */

#define REAUTHENTICATION_IS_ORPHANED (state == RE_AUTHENTICATING && !is_worked_on(attempt))

/* AuthManager::record_unstarted_refresh */
inline record_unstarted_refresh() {
  HELD_LOCK {
    if
    :: GUARD(unstarted_leaves_closed_alone, state == CLOSED) -> assert(state == CLOSED)
    :: else ->
      EFFECT(unstarted_ends_refresh, refresh_done = 1);
      if
      :: GUARD(unstarted_finds_nobody_at_work, state == AUTHENTICATED || REAUTHENTICATION_IS_ORPHANED) ->
        assert(in_flight == 0);    /* a running attempt is left alone */
        assert(state == AUTHENTICATED || REAUTHENTICATION_IS_ORPHANED);
        state = AUTHENTICATED;
        mode = NO_MODE;
        auth_error = 1;
        set_auth_event()
      :: else ->
        assert(state != AUTHENTICATED);
        if
        :: state == UNINITIALIZED -> auth_error = 1
        :: else
        fi
      fi
    fi
  }
}

/* AuthManager::start_refresh. `mine` becomes the number of the thread; 0: the manager was closed. `failed` is
 * set where it could not be started. */
inline start_refresh(mine, before, failed) {
  failed = 0;
  HELD_LOCK {
    if
    :: GUARD(no_renewal_after_close, state == CLOSED) -> assert(state == CLOSED); mine = 0
    :: else ->
      assert(state != CLOSED);    /* nothing is started, and the signals of the shutdown stay */
      mine = 1;
      refresh_stop = 0;
      close_event = 0;
      refresh_pending = 0;
      clear_refresh_done()
    fi
  }
  if
  :: mine != 0 ->
    atomic {
      threads++;
      assert(threads <= 7);
      mine = threads;
      enlist(mine, before)
    }
    if
    :: atomic { begun = begun | bit_of(mine); living = living | bit_of(mine); run refresh_loop(mine) }    /* Thread.start */
    :: atomic { starts_to_fail > 0 -> starts_to_fail--; a_start_failed = 1; failed = 1 };
      withdraw(mine, before);
      record_unstarted_refresh()
    fi;
    if
    :: !failed ->
      HELD_LOCK {
        if
        :: GUARD(started_is_registered, state != CLOSED && refresh_threads.newest == mine) -> refresh_thread = mine
        :: else
        fi
      }
    :: else
    fi
  :: else
  fi;
  atomic { mine = 0; before = 0 }
}

/* AuthManager::start_next_refresh */
inline start_next_refresh() {
  start_refresh(mine, before, failed);
  if
  :: failed -> record_unstarted_refresh()
  :: else
  fi
}

/* AuthManager::revive_refresh */
inline revive_refresh() {
  if
  :: HELD_LOCK { GUARD(revive_if_authenticated, state == AUTHENTICATED) -> assert(state == AUTHENTICATED) };
    if
    :: atomic {
        GUARD(revive_if_none_lives, !lives(refresh_threads.newest)) -> assert(!lives(refresh_threads.newest))
      };
      start_refresh(mine, before, failed)
    :: else
    fi
  :: else
  fi
}

#define DROPPED 8    /* the manager was closed meanwhile */

/* AuthManager::renew, and what do_refresh and background_reauth do about its outcome. */
inline renew(own, run_as, got, era_before) {
  era_before = highest_era;
  do_auth_flow_matching_pending_era(got);
  if
  :: !failed_with(got) ->
    HELD_LOCK {
      if
      :: GUARD(renewal_drops_when_closed, state == CLOSED) -> assert(state == CLOSED); got = DROPPED
      :: else -> store_unless_overtaken(got, era_before)
      fi
    }
  :: else
  fi;
  if
  :: failed_with(got) -> settle_failure(own, run_as, got)
  :: else
  fi;
  attempts[own].phase = kEnded;
  if
  :: !failed_with(got) && got != DROPPED -> start_next_refresh()
  :: else
  fi
}

/* AuthManager::do_refresh, on a refresh thread. */
inline do_refresh() {
  HELD_LOCK {
    if
    :: GUARD(refresh_only_if_authenticated, state != AUTHENTICATED) -> own = 0
    :: else ->
      begin_attempt(own, kRenewal, kRunning, RE_AUTHENTICATING, (pending_era == 0 -> PROACTIVE : ERA_CHANGE))
    fi
  }
  if
  :: own != 0 -> renew(own, kRenewal, got, era_before)
  :: else
  fi
}
