/* RefreshLoop, on a thread of its own: manager/refresh_loop.cpp. */

#define POLL 99    /* wait for one poll, not until a time */

/* What a pass would do something about. The passes in between, one per poll, find and change nothing; one that
 * comes at any other time is counted, so that every run ends. */
#define worth_a_pass \
  (refresh_event || state == AUTHENTICATED || state == CLOSED || refresh_stop || close_event || \
   (refresh_thread == me && !was_registered) || \
   (was_registered && refresh_thread != 0 && refresh_thread != me) || \
   (refresh_thread != me && refresh_threads.newest != me && lives(refresh_threads.newest)) || \
   (refresh_threads.newest == me && (refresh_threads.older & living) != 0))

/* With stop_requested: who requests a stop has closed the manager before. */
inline pass() {
  HELD_LOCK {
    if
    :: GUARD(loop_sees_stop, refresh_stop || close_event) -> break
    :: else
    fi;
    look_if_superseded();
    if
    :: GUARD(loop_sees_close, state == CLOSED) -> break
    :: GUARD(loop_sees_successor, is_superseded) -> break
    :: else
    fi;
    until = (GUARD(loop_waits_unless_authenticated, state != AUTHENTICATED) -> POLL : due_at(stored_at));
    assert((until != POLL) == (state == AUTHENTICATED))
  }
}

/* RefreshThreads::living_older, and retire */
inline retire_older_thread() {
  do
  :: atomic {
      if
      :: until != POLL && GUARD(loop_sees_refresh_due, now >= until) -> refreshing = 1; break
      :: else
      fi;
      assert(until == POLL || now < until);    /* no token is left to age */
      older = (GUARD(newest_wakes_older, refresh_threads.newest == me) -> last_of(refresh_threads.older & begun) : 0);
      if
      :: older == 0 -> break
      :: older != 0 && lives(older) && older != me -> EFFECT(older_is_woken, refresh_event = 1); break
      :: else
      fi
    };
    atomic { refresh_threads.older = refresh_threads.older & ~bit_of(older); older = 0 }
  od
}

inline wait() {
  if
  :: atomic { older != 0 && !lives(older) -> older = 0 }    /* join */
  :: atomic { older != 0 && lives(older) && (!refresh_event || state == CLOSED || refresh_threads.newest != me) ->
      older = 0    /* its time-out, where waiting on would be of no use */
    };
progress_of_a_poll:
    skip
  :: atomic { older == 0 && until == POLL && worth_a_pass -> skip }
  :: atomic { older == 0 && until != POLL && (refresh_event || now >= until) -> skip }
  :: atomic { (older != 0 || until == POLL) && early_wakes > 0 -> early_wakes--; older = 0 }
  fi;
  HELD_LOCK {
    look_if_superseded();
    if
    :: GUARD(signal_is_the_closes, state == CLOSED)
    :: GUARD(signal_is_the_successors, is_superseded)
    :: else -> refresh_event = 0
    fi
  }
}

proctype refresh_loop(byte me) {
  byte until, older, got, own, era_before, mine, before;
  byte early_wakes = EARLY_WAKES;
  bit was_registered, is_superseded, refreshing, failed;

  do
  :: pass();
    retire_older_thread();
    if
    :: refreshing -> break
    :: else
    fi;
end_of_waiting:
    wait()
  od;
  if
  :: refreshing ->
    refresh_pending = 1;
    resign(me);
    do_refresh()
  :: else
  fi;
  atomic {
    resign(me);
    living = living & ~bit_of(me)
  }
}
