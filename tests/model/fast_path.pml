/* AuthManager::token_if_healthy, one look: manager/fast_path.cpp. An injected clock or a replaced method leads past
 * it. */

#define TOKEN_IS_HEALTHY \
  (GUARD(fast_if_authenticated, state == AUTHENTICATED) && GUARD(fast_if_era_met, pending_era == 0) && \
   GUARD(fast_if_not_permanent, !permanent_error) && GUARD(fast_if_fresh, now < due_at(stored_at)) && \
   GUARD(fast_if_held, token != 0))

inline token_if_healthy() {
  if
  :: atomic { TOKEN_IS_HEALTHY ->
      not_before = announced;
      after_close = close_returned;
      assert(now < due_at(stored_at) && token != 0);
      serve();
      goto served
    }
  :: skip
  fi
}
