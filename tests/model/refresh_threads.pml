/* The refresh threads: manager/refresh_threads.cpp. One is known by the order in which it was created; 0: none. */

#define bit_of(thread) (1 << (thread))
#define last_of(list) \
  ((list) >= 128 -> 7 : ((list) >= 64 -> 6 : ((list) >= 32 -> 5 : ((list) >= 16 -> 4 : \
   ((list) >= 8 -> 3 : ((list) >= 4 -> 2 : ((list) >= 2 -> 1 : 0)))))))

typedef RefreshThreads {
  byte newest;
  byte older    /* the list, whose order is that of the numbers */
}

RefreshThreads refresh_threads;
byte threads;    /* created */
byte begun;      /* started */
byte living;     /* those whose is_alive() holds */

#define lives(thread) ((thread) != 0 && (living & bit_of(thread)) != 0)

/* LoopStanding::is_superseded, under the lock, for the loop of the thread `me`. */
inline look_if_superseded() {
  if
  :: refresh_thread == me -> was_registered = 1; is_superseded = 0
  :: else ->
    is_superseded = (was_registered && refresh_thread != 0) ||
                    (refresh_threads.newest != me && lives(refresh_threads.newest))
  fi
}

/* RefreshThreads::enlist */
inline enlist(thread, before) {
  atomic {
    before = refresh_threads.newest;
    refresh_threads.newest = thread;
    if
    :: before != 0 -> EFFECT(superseded_is_listed, refresh_threads.older = refresh_threads.older | bit_of(before))
    :: else
    fi
  }
}

/* RefreshThreads::withdraw: undoes `enlist` for a thread that did not start. */
inline withdraw(thread, before) {
  atomic {
    if
    :: GUARD(unstarted_is_newest_still, refresh_threads.newest == thread) ->
      refresh_threads.older = refresh_threads.older & ~bit_of(before);
      refresh_threads.newest = before
    :: else -> refresh_threads.older = refresh_threads.older & ~bit_of(thread)
    fi
  }
}

/* RefreshThreads::resign */
inline resign(thread) {
  atomic {
    if
    :: refresh_threads.newest == thread -> refresh_threads.newest = 0
    :: else
    fi
  }
}
