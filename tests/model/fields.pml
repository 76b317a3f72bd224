/* The manager's fields, as far as threads meet in them, and what is noted beside them to state the properties.
 *
 * Times are ticks: a token is due for renewal one tick after it was stored and expired after two. */

mtype = { UNINITIALIZED, AUTHENTICATING, AUTHENTICATED, RE_AUTHENTICATING, CLOSED }
mtype = { NO_MODE, PROACTIVE, ERA_CHANGE }

#define due_at(stored)     ((stored) + 1)
#define expired_at(stored) ((stored) + 2)

/* What a flow comes back with: the era of a token, or one of these. */
#define TRANSIENT  0
#define PERMANENT  9
#define failed_with(got) ((got) == TRANSIENT || (got) == PERMANENT)

mtype state = UNINITIALIZED;
byte token;               /* serial number; 0: none */
byte token_era;
byte stored_at;           /* _auth_time, from which _refresh_at and _token_expiry follow */
bit auth_error;           /* there is one */
byte refresh_thread;
bit refresh_stop, refresh_event, close_event, refresh_pending, refresh_done;
bit permanent_error, backing_off;
mtype mode = NO_MODE;
byte pending_era;         /* 0: none */
byte highest_era;

/* The world. */
byte now = NOW;
byte server_era = 1;
byte starts_to_fail = START_FAILURES;

/* Noted for the properties. */
byte stores;              /* tokens stored so far */
byte announced;           /* the highest era whose announcement has returned */
bit close_returned;
byte in_flight;           /* the attempt begun whose flow has neither stored nor failed */
byte ended;               /* processes of the program that have ended */
bit a_start_failed;
