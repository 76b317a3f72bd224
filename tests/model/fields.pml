/* The manager's fields, as far as threads meet in them, and what is noted beside them to state the properties.
 *
 * A bit of `awake` per attempt is the attempt's own event: an attempt's number names its event. A refresh thread
 * is known by the order in which it was created. Times are ticks: a token is due for renewal one tick after it
 * was stored and expired after two. */

mtype = { UNINITIALIZED, AUTHENTICATING, AUTHENTICATED, RE_AUTHENTICATING, CLOSED }
mtype = { NO_MODE, PROACTIVE, ERA_CHANGE }

#define bit_of(n)      (1 << (n))
#define is_set(event)  ((awake & bit_of(event)) != 0)
#define lives(thread)  ((thread) != 0 && (living & bit_of(thread)) != 0)
#define last_of(list) \
  ((list) >= 128 -> 7 : ((list) >= 64 -> 6 : ((list) >= 32 -> 5 : ((list) >= 16 -> 4 : \
   ((list) >= 8 -> 3 : ((list) >= 4 -> 2 : ((list) >= 2 -> 1 : 0)))))))
#define due_at(stored)     ((stored) + 1)
#define expired_at(stored) ((stored) + 2)

/* Recorded errors: the number of the attempt that failed, or one of these. */
#define NO_ERROR      0
#define NO_THREAD     14
#define CLOSED_ERROR  15

/* What a flow comes back with: the era of a token, or one of these. */
#define TRANSIENT  0
#define PERMANENT  9

/* Fields. */
mtype state = UNINITIALIZED;
byte token;               /* serial number; 0: none */
byte token_era;
byte stored_at;           /* _auth_time, from which _refresh_at and _token_expiry follow */
byte auth_event;          /* number of the attempt whose event it is; 0: none */
short awake;              /* the events that are set */
byte auth_error;
byte refresh_thread;
bit refresh_stop, refresh_event, close_event, refresh_pending, refresh_done;
bit permanent_error, backing_off;
mtype mode = NO_MODE;
byte pending_era;         /* 0: none */

/* Hidden slots. */
byte attempt;
byte highest_era;
byte newest_thread;
byte older_threads;       /* the list, whose order is that of the numbers */
byte failed_event, failed_error;
byte renewals_running;
byte refresh_waiters;
bit refresh_done_is_stale;
bit era_thread_lives;

/* The world. */
byte now = NOW;
byte server_era = 1;
byte threads;             /* refresh threads created */
byte living;              /* those whose is_alive() holds */
byte starts_to_fail = START_FAILURES;

/* Noted for the properties. */
byte stores;              /* tokens stored so far */
byte announced;           /* the highest era whose announcement has returned */
bit close_returned;
byte flying;              /* attempts begun whose flow has neither stored nor failed */
byte ended;               /* processes of the host that have ended */
bit a_start_failed;

inline begin_attempt(own) {
  assert(flying == 0);    /* no flow begins while another is in flight */
  flying++;
  attempt++;
  own = attempt;
  auth_event = own;
  auth_error = NO_ERROR
}

/* AuthManager::settle_attempt, under the lock. */
inline settle_attempt(error) {
  auth_error = error;
  if
  :: auth_event != 0 ->
    failed_event = auth_event;
    failed_error = error;
    EFFECT(settling_wakes_waiters, awake = awake | bit_of(auth_event))
  :: else
  fi
}

/* AuthManager::clear_refresh_done. */
inline clear_refresh_done() {
  refresh_done_is_stale = GUARD(refresh_done_is_awaited, refresh_waiters > 0);
  if
  :: !refresh_done_is_stale -> EFFECT(refresh_done_cleared, refresh_done = 0)
  :: else
  fi
}
