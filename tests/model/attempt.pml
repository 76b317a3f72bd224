/* The attempt: manager/attempt.cpp, and how one begins: settle.cpp. It is known by the order in which it was begun;
 * 0: none yet, or none any more. */

#define MOST_ATTEMPTS 8

mtype = { kLogin, kRenewal, kEraChange }
mtype = { kBegun, kRunning, kEnded }

typedef Attempt {
  mtype kind, phase;
  bit follows_token;    /* a login that began in AUTHENTICATED */
  bit event;            /* set */
  bit failure           /* there is one */
}

Attempt attempts[MOST_ATTEMPTS];
byte attempt;    /* the current one, whose event is _auth_event */

/* By who runs it, or by a thread that was started for it and has not begun yet. */
#define is_worked_on(its) \
  (attempts[its].phase == kRunning || (attempts[its].phase == kBegun && attempts[its].kind == kEraChange))

/* AuthManager::wait_for */
#define wait_for(its) (attempts[its].event)

/* AuthManager::begin_attempt, under the lock. */
inline begin_attempt(own, its_kind, its_phase, its_state, its_mode) {
  assert(state != CLOSED);
  assert(in_flight == 0);    /* no flow begins while another is in flight */
  attempt++;
  assert(attempt < MOST_ATTEMPTS);
  own = attempt;
  attempts[own].kind = its_kind;
  attempts[own].phase = its_phase;
  attempts[own].follows_token = (its_kind == kLogin && state == AUTHENTICATED);
  in_flight = own;
  state = its_state;
  mode = its_mode;
  auth_error = 0
}
