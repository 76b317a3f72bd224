/* The refresh threads: manager/renewal.cpp and refresh_loop.cpp. */

/* reauthentication_is_orphaned */
#define ORPHANED (state == RE_AUTHENTICATING && renewals_running == 0 && !era_thread_lives)

/* What a pass would do something about. The passes in between, one per poll, find and change nothing; one that
 * comes at any other time is counted, so that every run ends. */
#define worth_a_pass \
  (refresh_event || state == AUTHENTICATED || state == CLOSED || refresh_stop || close_event || \
   (refresh_thread == me && !was_registered) || \
   (was_registered && refresh_thread != 0 && refresh_thread != me) || \
   (refresh_thread != me && newest_thread != me && lives(newest_thread)) || \
   (newest_thread == me && (older_threads & living) != 0))

/* RefreshLoop::run, on a thread of its own. */
#define POLL 99    /* wait for one poll, not until a time */

/* RefreshLoop::resign */
#define RESIGN atomic { if :: newest_thread == me -> newest_thread = 0 :: else fi }

/* AuthManager::record_unstarted_refresh, one section under the lock. */
inline record_unstarted_refresh() {
  atomic {
    if
    :: GUARD(unstarted_leaves_closed_alone, state == CLOSED) -> assert(state == CLOSED)
    :: else ->
      EFFECT(unstarted_ends_refresh, refresh_done = 1);
      if
      :: GUARD(unstarted_finds_nobody_at_work, state == AUTHENTICATED || ORPHANED) ->
        auth_error = NO_THREAD;
        assert(flying == 0 && (state == AUTHENTICATED || ORPHANED));    /* a running attempt is left alone */
        state = AUTHENTICATED;
        mode = NO_MODE;
        if
        :: auth_event != 0 -> awake = awake | bit_of(auth_event)
        :: else
        fi
      :: else ->
        assert(state != AUTHENTICATED);
        if
        :: state == UNINITIALIZED -> auth_error = NO_THREAD
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
  atomic {
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
    atomic {    /* supersede */
      threads++;
      assert(threads <= 7);
      mine = threads;
      before = newest_thread;
      newest_thread = mine;
      if
      :: before != 0 -> EFFECT(superseded_is_listed, older_threads = older_threads | bit_of(before))
      :: else
      fi
    }
    if
    :: atomic { living = living | bit_of(mine); run refresher(mine) }    /* Thread.start */
    :: atomic { starts_to_fail > 0 -> starts_to_fail--; a_start_failed = 1; failed = 1 };
      atomic {    /* restore: undoes supersede */
        if
        :: GUARD(unstarted_is_newest_still, newest_thread == mine) ->
          older_threads = older_threads & ~bit_of(before);
          newest_thread = before
        :: else
        fi
      }
      record_unstarted_refresh()
    fi;
    if
    :: !failed ->
      atomic {
        if
        :: GUARD(started_is_registered, state != CLOSED && newest_thread == mine) -> refresh_thread = mine
        :: else
        fi
      }
    :: else
    fi
  :: else
  fi;
  atomic { mine = 0; before = 0 }
}

/* RefreshLoop::superseded */
inline look_if_superseded() {
  if
  :: refresh_thread == me -> was_registered = 1; superseded = 0
  :: else ->
    superseded = (was_registered && refresh_thread != 0) || (newest_thread != me && lives(newest_thread))
  fi
}

/* AuthManager::start_next_refresh */
inline start_next_refresh() {
  start_refresh(mine, before, failed);
  if
  :: failed -> record_unstarted_refresh()
  :: else
  fi
}

inline settle_failed_refresh() {
  atomic {
    flying = flying - flies;
    flies = 0;
    if
    :: GUARD(failed_refresh_leaves_closed_alone, state == CLOSED)
    :: else ->
      if
      :: GUARD(failed_refresh_is_newest, attempt != own) -> awake = awake | bit_of(own)
      :: else ->
        assert(attempt == own && state != CLOSED);    /* undoes nothing that came after it */
        if
        :: GUARD(refresh_failed_for_good, got == PERMANENT) -> permanent_error = 1; assert(got == PERMANENT)
        :: else
        fi;
        assert(got != PERMANENT || permanent_error);
        state = (GUARD(era_pending_after_failed_refresh, pending_era == 0) -> UNINITIALIZED : AUTHENTICATED);
        assert(pending_era == 0 || state == AUTHENTICATED);
        mode = NO_MODE;
        settle_attempt(own);
        EFFECT(failure_ends_refresh, refresh_done = 1)
      fi
    fi
  }
}

/* AuthManager::do_refresh, on a refresh thread. */
inline do_refresh() {
  atomic {
    if
    :: GUARD(refresh_only_if_authenticated, state != AUTHENTICATED) -> own = 0
    :: else ->
      begin_attempt(own);
      flies = 1;
      state = RE_AUTHENTICATING;
      renewals_running++;
      mode = (pending_era == 0 -> PROACTIVE : ERA_CHANGE)
    fi
  }
  if
  :: own != 0 ->
    renew(got, era_before, flies);
    if
    :: got == TRANSIENT || got == PERMANENT -> settle_failed_refresh()
    :: else
    fi;
    renewals_running--;
    if
    :: got != TRANSIENT && got != PERMANENT && got != DROPPED -> start_next_refresh()
    :: else
    fi
  :: else
  fi
}

proctype refresher(byte me) {
  byte until, older, got, own, era_before, mine, before;
  byte early_wakes = EARLY_WAKES;
  bit was_registered, superseded, refreshing, failed, flies;

  do
  :: atomic {    /* stop_requested, and pass: who requests a stop has closed the manager before */
      if
      :: GUARD(loop_sees_stop, refresh_stop || close_event) -> break
      :: else
      fi;
      look_if_superseded();
      if
      :: GUARD(loop_sees_close, state == CLOSED) -> break
      :: GUARD(loop_sees_successor, superseded) -> break
      :: else
      fi;
      until = (GUARD(loop_waits_unless_authenticated, state != AUTHENTICATED) -> POLL : due_at(stored_at));
      assert((until != POLL) == (state == AUTHENTICATED))
    };
    do    /* wait, living_older_thread */
    :: atomic {
        if
        :: until != POLL && GUARD(loop_sees_refresh_due, now >= until) -> refreshing = 1; break
        :: else
        fi;
        assert(until == POLL || now < until);    /* no token is left to age */
        older = (GUARD(newest_wakes_older, newest_thread == me) -> last_of(older_threads) : 0);
        if
        :: older == 0 -> break
        :: older != 0 && lives(older) && older != me -> EFFECT(older_is_woken, refresh_event = 1); break
        :: else
        fi
      };
      atomic { older_threads = older_threads & ~bit_of(older); older = 0 }
    od;
    if
    :: refreshing -> break
    :: else
    fi;
end_of_waiting:
    if
    :: atomic { older != 0 && !lives(older) -> older = 0 }    /* join */
    :: atomic { older != 0 && lives(older) && (!refresh_event || state == CLOSED || newest_thread != me) ->
        older = 0    /* its time-out, where waiting on would be of no use */
      };
progress_of_a_poll:
      skip
    :: atomic { older == 0 && until == POLL && worth_a_pass -> skip }
    :: atomic { older == 0 && until != POLL && (refresh_event || now >= until) -> skip }
    :: atomic { (older != 0 || until == POLL) && early_wakes > 0 -> early_wakes--; older = 0 }
    fi;
    atomic {    /* the end of wait, under the lock */
      look_if_superseded();
      if
      :: GUARD(signal_is_the_closes, state == CLOSED)
      :: GUARD(signal_is_the_successors, superseded)
      :: else -> refresh_event = 0
      fi
    }
  od;
  if
  :: refreshing ->
    refresh_pending = 1;
    RESIGN;
    do_refresh()
  :: else
  fi;
  atomic {
    RESIGN;
    living = living & ~bit_of(me)
  }
}
