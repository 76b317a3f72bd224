#pragma once

// What `help()` shows of AuthManager. The first line, up to "--", is the signature that `inspect` reads.

namespace tessaline::auth::binding::docs {

inline constexpr char kType[] =
    "AuthManager(private_key, server_url, *, invite_code=None, register_wallet=True, clock=None, "
    "_transport=None)\n"
    "--\n"
    "\n"
    "Client-side authentication manager with state machine and proactive refresh.\n"
    "\n"
    "Logs one wallet in at one server, renews its bearer token on a background thread and serves it\n"
    "to any number of threads. The constructor makes no request and starts no thread; call\n"
    "authenticate(), then get_token() before each request, and close() at the end (or use the\n"
    "manager as a context manager). If a renewal fails at all three attempts, the manager stops\n"
    "renewing until authenticate() is called again.\n"
    "\n"
    "Args:\n"
    "    private_key: secp256k1 key, 64 hexadecimal digits, \"0x\" allowed. Kept in locked memory,\n"
    "        wiped on close.\n"
    "    server_url: Base URL; https, or http to this machine.\n"
    "    invite_code: Sent with the registration; surrounding spaces and case do not matter.\n"
    "    register_wallet: Whether each login begins with a registration.\n"
    "    clock: Callable without arguments returning seconds as a number; time.time() when None.\n"
    "        Called on any thread, also under the manager's lock: it must not call the manager.\n"
    "    _transport: Callable (method, url, headers=None, body=None) returning (status, headers,\n"
    "        body bytes). Runs on several threads at once; raises ConnectionError or TimeoutError\n"
    "        for transient errors.\n"
    "\n"
    "Raises:\n"
    "    InvalidKeyError: The key is not a valid private key.\n"
    "    ValueError: The URL is not suitable for a bearer token.\n"
    "    TypeError: Key or URL is not a str.\n"
    "\n"
    "All methods may be called from any thread, and in a forked child. The notes of an error say\n"
    "what to do.";

inline constexpr char kAuthenticate[] =
    "authenticate($self)\n"
    "--\n"
    "\n"
    "Full register -> challenge -> sign -> verify flow.\n"
    "\n"
    "If several threads call it at once, one runs the flow and the others wait for its outcome. A\n"
    "manager that is logged in logs in again; if that fails, it keeps its token. Starts the\n"
    "background renewal. Blocks until the requests and their retries have finished: at most 3\n"
    "attempts per request, with a time-out of 30 s each and a back-off of 1 s and 2 s, or the\n"
    "server's Retry-After. close() ends the retries.\n"
    "\n"
    "Raises:\n"
    "    AuthError: The server refused the wallet or its request (\"invalid_address\",\n"
    "        \"unauthorized\", \"invalid_request\", \"signature_mismatch\"), or the manager rejected the\n"
    "        server's token or secret (\"wallet_mismatch\", \"wallet_secret_changed\", \"era_mismatch\").\n"
    "        Also \"manager_closed\" and \"unexpected_auth_state\".\n"
    "    RegistrationError: The registration was refused for its invite code (\"invite_required\",\n"
    "        \"invite_invalid\", \"invite_already_redeemed\", \"invite_revoked\").\n"
    "    NetworkError: A request failed at all attempts, or each challenge was stale.\n"
    "    ssl.SSLError: The server's certificate is not trusted, or TLS failed in another way.\n"
    "    OSError, http.client.BadStatusLine: Another failure below HTTP that is not retried.\n"
    "    KeyError, TypeError, ValueError: An unexpected response of the server.\n"
    "    RuntimeError: Called from a callback of the login, or no thread could be started.\n"
    "\n"
    "Threads that waited get every failure as an AuthError; for an error of another type, `reason`\n"
    "is its message.";

inline constexpr char kHttpRequest[] =
    "_http_request($self, method, path, body_dict=None, headers=None)\n--\n\n"
    "Make HTTP request to server. Returns (status, resp_headers, resp_body_dict).\n\n"
    "Raises ConnectionError/TimeoutError on network failures.";

inline constexpr char kRequestWithRetry[] =
    "_request_with_retry($self, method, path, body_dict=None, headers=None,\n"
    "                    max_attempts=None, is_verify=False)\n--\n\n"
    "HTTP request with exponential backoff retry for temporary errors.\n\n"
    "Returns (status, resp_headers, resp_body). Raises AuthError on permanent errors and NetworkError on "
    "exhausted\n"
    "retries.";

inline constexpr char kGetTime[] =
    "_get_time($self)\n--\n\n"
    "Get current time using injected clock.";

inline constexpr char kWaitWithClock[] =
    "_wait_with_clock($self, seconds)\n--\n\n"
    "Wait using the injected clock. Returns early if close is signaled or clock is stuck.";

inline constexpr char kDoAuthFlow[] =
    "_do_auth_flow($self)\n--\n\n"
    "Execute register -> challenge -> sign -> verify.";

inline constexpr char kDoAuthFlowMatchingPendingEra[] =
    "_do_auth_flow_matching_pending_era($self)\n--\n\n"
    "Run auth flow, retrying once if an in-flight era change needs a newer token.";

inline constexpr char kStoreAuthResult[] =
    "_store_auth_result($self, token, wallet_secret_bytes)\n--\n\n"
    "Store auth result and signal waiting threads. Must be called under self._lock.";

inline constexpr char kComputeRefreshAt[] =
    "_compute_refresh_at($self, auth_time)\n--\n\n"
    "Return jittered proactive refresh timestamp.";

inline constexpr char kRaiseIfPendingEraLocked[] =
    "_raise_if_pending_era_locked($self)\n--\n\n"
    "Raise instead of serving a token while an era-change target is unresolved.";

inline constexpr char kStartRefresh[] =
    "_start_refresh($self)\n--\n\n"
    "Start the proactive refresh background thread.";

inline constexpr char kRefreshLoop[] =
    "_refresh_loop($self)\n--\n\n"
    "Background thread waiting for token refresh threshold.";

inline constexpr char kDoRefresh[] =
    "_do_refresh($self)\n--\n\n"
    "Perform a proactive token refresh.";

inline constexpr char kGetToken[] =
    "get_token($self)\n"
    "--\n"
    "\n"
    "Return current valid JWT token, blocking during refresh.\n"
    "\n"
    "Never logs in by itself. Cheap while the token is valid: call it before each request instead\n"
    "of storing the token. Waits while a re-authentication runs: after the renewal point at most 10\n"
    "s for the renewal, after the expiry 3 s for one to begin. close() ends every wait.\n"
    "\n"
    "Returns:\n"
    "    The token, a JWT as str.\n"
    "\n"
    "Raises:\n"
    "    AuthError: \"not_authenticated\", \"token_expired\", \"era_change_pending\", \"manager_closed\",\n"
    "        or the error with which the last renewal failed, as the same object. For a failure of\n"
    "        another type, `reason` is its message.\n"
    "    RuntimeError: Called from a callback of a login, which would wait for itself.";

inline constexpr char kPollForReauth[] =
    "_poll_for_reauth($self, fallback_to_current_token)\n--\n\n"
    "Poll up to 3s for the refresh thread to enter RE_AUTHENTICATING, then wait.\n\n"
    "If fallback_to_current_token is True, returns the current token on poll timeout\n"
    "(used when refresh_pending is set). Otherwise raises token_expired.";

inline constexpr char kGetWalletSecret[] =
    "get_wallet_secret($self)\n"
    "--\n"
    "\n"
    "Return 32-byte wallet_secret (base64-decoded).\n"
    "\n"
    "Never waits. During a re-authentication it returns the previous value. The manager does not\n"
    "wipe the returned bytes.\n"
    "\n"
    "Raises:\n"
    "    AuthError: \"not_authenticated\" or \"manager_closed\".";

inline constexpr char kGetWalletAddress[] =
    "get_wallet_address($self)\n"
    "--\n"
    "\n"
    "Return lowercase 0x-prefixed 42-char wallet address.\n"
    "\n"
    "Works in every state, also after close(). Never waits.";

inline constexpr char kGetTokenExpiry[] =
    "get_token_expiry($self)\n"
    "--\n"
    "\n"
    "Return token expiry as Unix timestamp.\n"
    "\n"
    "On the manager's clock, in seconds, counted from the moment the token was stored. Never waits.\n"
    "\n"
    "Raises:\n"
    "    AuthError: \"not_authenticated\" or \"manager_closed\".";

inline constexpr char kNotifyEraChange[] =
    "notify_era_change($self, new_era_number)\n"
    "--\n"
    "\n"
    "Trigger non-blocking background re-authentication for era transitions.\n"
    "\n"
    "After the call no thread gets a token of an older era. During a login it only raises the\n"
    "required era; a lower number changes nothing. Returns at once.\n"
    "\n"
    "Args:\n"
    "    new_era_number: Lowest era, from 1, that the next token must carry.\n"
    "\n"
    "Raises:\n"
    "    ValueError: The number is not positive.\n"
    "    TypeError: It is not a number.\n"
    "    AuthError: \"manager_closed\" or \"not_authenticated\".\n"
    "    RuntimeError: The background thread could not be started; no caller keeps waiting for it.";

inline constexpr char kBackgroundReauth[] =
    "_background_reauth($self)\n--\n\n"
    "Background re-authentication thread (era-change triggered).";

inline constexpr char kSetDisplayName[] =
    "set_display_name($self, display_name)\n"
    "--\n"
    "\n"
    "Set or reset display name via profile endpoint.\n"
    "\n"
    "Blocks like get_token(), and for the request and its retries: 3 attempts with a time-out of 30\n"
    "s each and a back-off of 1 s and 2 s.\n"
    "\n"
    "Args:\n"
    "    display_name: 3 to 32 letters, digits, spaces, \"-\" or \"_\", after removing surrounding\n"
    "        spaces; None or \"\" resets the name.\n"
    "\n"
    "Returns:\n"
    "    The server's response, or a dict of \"wallet_address\" and \"display_name\".\n"
    "\n"
    "Raises:\n"
    "    ValueError: The name breaks the rule; nothing was sent.\n"
    "    AttributeError: It is neither str nor None; nothing was sent.\n"
    "    ProfileError: \"validation_failed\" (with `message`) or \"rate_limited\" (with `retry_after`, "
    "seconds).\n"
    "    AuthError: As get_token(), or \"profile_unauthorized\".\n"
    "    NetworkError: The request failed at all attempts.";

inline constexpr char kClose[] =
    "close($self)\n"
    "--\n"
    "\n"
    "Stop refresh, clear sensitive material, transition to CLOSED.\n"
    "\n"
    "Wakes all waiting threads, wipes the private key, drops token and wallet secret. Takes at most\n"
    "about one second, for the background thread to end. May be called again, and from any thread;\n"
    "called from a callback under the manager's lock, it takes effect when the lock is free. After\n"
    "it, every method except get_wallet_address() raises AuthError \"manager_closed\".";

inline constexpr char kEnter[] =
    "__enter__($self)\n"
    "--\n"
    "\n"
    "Return the manager; leaving the block closes it, also after an exception.";

inline constexpr char kExit[] =
    "__exit__($self, exc_type, exc_value, traceback)\n"
    "--\n"
    "\n"
    "Close the manager. An exception in the block propagates.";

inline constexpr char kPrivateKey[] =
    "The signing key as 64 hexadecimal digits, or None once wiped. Reading makes a text that the host owns.";

}  // namespace tessaline::auth::binding::docs
