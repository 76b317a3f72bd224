#pragma once

#include <cstddef>
#include <iterator>

namespace tessaline::auth {

/// The manager's fields, in the order in which the constructor sets them. Each is a Python object that
/// programs may read and write by its name.
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

/// Whether `_lock` guards it, so that only `HeldLock` accesses it. The others are set once, or are events,
/// which are thread-safe, or are stored once by the thread that runs the flow.
constexpr bool is_guarded(Field field) {
  switch (field) {
    case Field::kState:
    case Field::kToken:
    case Field::kTokenIat:
    case Field::kTokenExpiry:
    case Field::kWalletSecret:
    case Field::kAuthTime:
    case Field::kAuthEvent:
    case Field::kAuthError:
    case Field::kRefreshThread:
    case Field::kRefreshAt:
    case Field::kPermanentRefreshError:
    case Field::kReauthMode:
    case Field::kPendingEraNumber:
      return true;
    default:
      return false;
  }
}

/// Only called at compile time, where it is an error.
void guarded_by_lock();

/// A field that `_lock` does not guard; any other does not compile.
struct FreeField {
  consteval FreeField(Field free) : field(free) {  // NOLINT(google-explicit-constructor): stands for a Field
    if (is_guarded(free)) guarded_by_lock();
  }
  Field field;
};

}  // namespace tessaline::auth
