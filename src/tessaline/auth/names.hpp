#pragma once

#include "tessaline/auth/python/name.hpp"

// Names of Python's library, of the module's globals and of the manager's members.

namespace tessaline::auth::names {

using python::Name;

// Python's library, as the module imports it.
inline constinit Name base64{"base64"};
inline constinit Name json{"json"};
inline constinit Name random{"random"};
inline constinit Name threading{"threading"};
inline constinit Name time_module{"_time"};

inline constinit Name b64decode{"b64decode"};
inline constinit Name current_thread{"current_thread"};
inline constinit Name daemon{"daemon"};
inline constinit Name decode{"decode"};
inline constinit Name dumps{"dumps"};
inline constinit Name encode{"encode"};
inline constinit Name errors{"errors"};
inline constinit Name event{"Event"};
inline constinit Name fullmatch{"fullmatch"};
inline constinit Name get{"get"};
inline constinit Name get_ident{"get_ident"};
inline constinit Name ident{"ident"};
inline constinit Name is_alive{"is_alive"};
inline constinit Name is_set{"is_set"};
inline constinit Name items{"items"};
inline constinit Name join{"join"};
inline constinit Name json_decode_error{"JSONDecodeError"};
inline constinit Name loads{"loads"};
inline constinit Name lock{"Lock"};
inline constinit Name lower{"lower"};
inline constinit Name main_thread{"main_thread"};
inline constinit Name monotonic{"monotonic"};
inline constinit Name pop{"pop"};
inline constinit Name remove{"remove"};
inline constinit Name sleep{"sleep"};
inline constinit Name split{"split"};
inline constinit Name start{"start"};
inline constinit Name strip{"strip"};
inline constinit Name rstrip{"rstrip"};
inline constinit Name target{"target"};
inline constinit Name thread{"Thread"};
inline constinit Name timeout{"timeout"};
inline constinit Name uniform{"uniform"};
inline constinit Name update{"update"};
inline constinit Name urlsafe_b64decode{"urlsafe_b64decode"};
inline constinit Name wait{"wait"};
inline constinit Name wall_clock{"time"};

// Arguments, claims and members of messages.
inline constinit Name authorization{"Authorization"};
inline constinit Name body{"body"};
inline constinit Name body_dict{"body_dict"};
inline constinit Name challenge_id{"challenge_id"};
inline constinit Name component{"component"};
inline constinit Name content_type{"Content-Type"};
inline constinit Name display_name{"display_name"};
inline constinit Name era_number{"era_number"};
inline constinit Name error{"error"};
inline constinit Name expires_at{"expires_at"};
inline constinit Name fallback_to_current_token{"fallback_to_current_token"};
inline constinit Name headers{"headers"};
inline constinit Name invite_code{"invite_code"};
inline constinit Name is_verify{"is_verify"};
inline constinit Name max_attempts{"max_attempts"};
inline constinit Name message{"message"};
inline constinit Name metadata{"metadata"};
inline constinit Name reason{"reason"};
inline constinit Name retry_after{"retry_after"};
inline constinit Name scope{"scope"};
inline constinit Name signature{"signature"};
inline constinit Name source_file{"source_file"};
inline constinit Name source_function{"source_function"};
inline constinit Name source_line{"source_line"};
inline constinit Name sub{"sub"};
inline constinit Name sub_service{"sub_service"};
inline constinit Name token{"token"};
inline constinit Name wallet_address{"wallet_address"};
inline constinit Name wallet_secret{"wallet_secret"};

// Module globals that are looked up when used.
inline constinit Name active_auth_manager{"_active_auth_manager"};
inline constinit Name active_auth_manager_lock{"_active_auth_manager_lock"};
inline constinit Name assert_token_subject{"_assert_token_subject_matches_wallet"};
inline constinit Name auth_flow_challenge_max_cycles{"_AUTH_FLOW_CHALLENGE_MAX_CYCLES"};
inline constinit Name auth_flow_http_max_attempts{"_AUTH_FLOW_HTTP_MAX_ATTEMPTS"};
inline constinit Name auth_http_timeout_default{"_AUTH_HTTP_TIMEOUT_DEFAULT"};
inline constinit Name auth_http_timeout_seconds{"_auth_http_timeout_seconds"};
inline constinit Name backoff_base{"_BACKOFF_BASE"};
inline constinit Name backoff_cap{"_BACKOFF_CAP"};
inline constinit Name decode_jwt_payload{"_decode_jwt_payload_unverified"};
inline constinit Name default_http_transport{"_default_http_transport"};
inline constinit Name display_name_err{"_DISPLAY_NAME_ERR"};
inline constinit Name display_name_re{"_DISPLAY_NAME_RE"};
inline constinit Name jwt_era_number{"_jwt_era_number"};
inline constinit Name log_library_surface_event{"log_library_surface_event"};
inline constinit Name normalize_invite_code{"_normalize_invite_code"};
inline constinit Name permanent_reasons{"_PERMANENT_REASONS"};
inline constinit Name refresh_ratio{"_REFRESH_RATIO"};
inline constinit Name token_lifetime{"_TOKEN_LIFETIME"};
inline constinit Name validate_private_key{"_validate_private_key"};
inline constinit Name validate_server_url{"_validate_server_url"};

// Members of the manager, looked up on the instance, so that replacements by a subclass or a test take
// effect. `steps/` knows the manager by these names only.
inline constinit Name background_reauth{"_background_reauth"};
inline constinit Name clock{"_clock"};
inline constinit Name close{"close"};
inline constinit Name close_event{"_close_event"};
inline constinit Name compute_refresh_at{"_compute_refresh_at"};
inline constinit Name do_auth_flow{"_do_auth_flow"};
inline constinit Name do_auth_flow_matching_pending_era{"_do_auth_flow_matching_pending_era"};
inline constinit Name do_refresh{"_do_refresh"};
inline constinit Name get_time{"_get_time"};
inline constinit Name get_token{"get_token"};
inline constinit Name http_request{"_http_request"};
inline constinit Name in_transient_backoff{"_in_transient_backoff"};
inline constinit Name notify_era_change{"notify_era_change"};
inline constinit Name poll_for_reauth{"_poll_for_reauth"};
inline constinit Name raise_if_pending_era_locked{"_raise_if_pending_era_locked"};
inline constinit Name refresh_loop{"_refresh_loop"};
inline constinit Name request_with_retry{"_request_with_retry"};
inline constinit Name server_url{"_server_url"};
inline constinit Name start_refresh{"_start_refresh"};
inline constinit Name store_auth_result{"_store_auth_result"};
inline constinit Name transport{"_transport"};
inline constinit Name wait_with_clock{"_wait_with_clock"};

}  // namespace tessaline::auth::names
