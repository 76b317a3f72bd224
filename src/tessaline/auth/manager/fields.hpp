#pragma once

#include <cstddef>
#include <iterator>

namespace tessaline::auth {

/// The manager's fields, in the order in which the constructor sets them. Each is a host object that the host
/// may read and write under its name.
enum class Field : std::size_t {
  kWalletAddress,
  kServerUrl,
  kInviteCode,
  kRegisterWallet,
  kClock,
  kUsesInjectedClock,
  kTransport,
  kState,
  kLock,
  kToken,
  kTokenIat,
  kTokenExpiry,
  kWalletSecret,
  kAuthTime,
  kAuthEvent,
  kAuthError,
  kRefreshThread,
  kRefreshStop,
  kRefreshEvent,
  kRefreshAt,
  kCloseEvent,
  kPermanentRefreshError,
  kRefreshPending,
  kRefreshDone,
  kInTransientBackoff,
  kReauthMode,
  kPendingEraNumber,
  kRegistrationAcknowledged,
};

inline constexpr std::size_t kFieldCount = static_cast<std::size_t>(Field::kRegistrationAcknowledged) + 1;

inline constexpr const char* kFieldNames[] = {
    "_wallet_address",
    "_server_url",
    "_invite_code",
    "_register_wallet",
    "_clock",
    "_uses_injected_clock",
    "_transport",
    "_state",
    "_lock",
    "_token",
    "_token_iat",
    "_token_expiry",
    "_wallet_secret",
    "_auth_time",
    "_auth_event",
    "_auth_error",
    "_refresh_thread",
    "_refresh_stop",
    "_refresh_event",
    "_refresh_at",
    "_close_event",
    "_permanent_refresh_error",
    "_refresh_pending",
    "_refresh_done",
    "_in_transient_backoff",
    "_reauth_mode",
    "_pending_era_number",
    "_registration_acknowledged",
};

static_assert(std::size(kFieldNames) == kFieldCount);

/// What a manager keeps besides its fields, unseen by the host.
enum class Hidden : std::size_t {
  kNewestRefreshThread,  ///< the refresh thread started last, while its loop may still refresh
  kOlderRefreshThreads,  ///< list of those that a newer one has superseded and that may still sleep
  kEraThread,            ///< the era-change thread started last
  kEraEvent,             ///< the event of the attempt that it was started for
  kHighestEra,           ///< the highest era announced so far
  kRetiredError,         ///< replaced under `_lock`, to be dropped after it
  kRaisedError,          ///< the stored error that was raised again last, and its traceback before that
  kRaisedTraceback,
  kFailedEvent,  ///< the event of the attempt that failed last, and what was recorded of the failure
  kFailedError,
};

inline constexpr std::size_t kHiddenCount = static_cast<std::size_t>(Hidden::kFailedError) + 1;

}  // namespace tessaline::auth
