/* Those who wait for _refresh_done, which is cleared under none of them: manager/renewal.cpp, full_path.cpp. */

typedef RefreshWaiters {
  byte count;
  bit signal_is_stale    /* to be cleared when the last of them has gone */
}

RefreshWaiters refresh_waiters;

/* AuthManager::clear_refresh_done */
inline clear_refresh_done() {
  refresh_waiters.signal_is_stale = GUARD(refresh_done_is_awaited, refresh_waiters.count > 0);
  if
  :: !refresh_waiters.signal_is_stale -> EFFECT(refresh_done_cleared, refresh_done = 0)
  :: else
  fi
}

/* ~RefreshWaiter */
inline release_refresh_waiter(clearing) {
  atomic {
    refresh_waiters.count--;
    clearing = GUARD(refresh_done_is_stale, refresh_waiters.signal_is_stale)
  }
  if
  :: clearing -> atomic { clear_refresh_done() }
  :: else
  fi
}
