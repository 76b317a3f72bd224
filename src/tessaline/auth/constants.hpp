#pragma once

#include <array>
#include <string_view>

namespace tessaline::auth {

/// The states of a manager; their texts are what Python sees.
enum class State { kUninitialized, kAuthenticating, kAuthenticated, kReAuthenticating, kClosed, kUnknown };

inline constexpr std::array<const char*, 5> kStateTexts{"UNINITIALIZED", "AUTHENTICATING", "AUTHENTICATED",
                                                        "RE_AUTHENTICATING", "CLOSED"};

inline constexpr const char* kModeProactive = "PROACTIVE";
inline constexpr const char* kModeEraChange = "ERA_CHANGE";

/// Order of the group of secp256k1 (SEC 2, section 2.4.1).
inline constexpr const char* kCurveOrderHex =
    "fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364141";

inline constexpr long kBackoffBase = 1;              ///< seconds
inline constexpr long kBackoffCap = 60;              ///< seconds
inline constexpr double kHttpTimeoutDefault = 30.0;  ///< seconds, per request
inline constexpr long kFlowHttpMaxAttempts = 3;
inline constexpr long kFlowChallengeMaxCycles = 3;
inline constexpr double kRefreshRatio = 0.8;    ///< of the token's lifetime
inline constexpr long kTokenLifetime = 86400;   ///< seconds, counted from storage
inline constexpr double kRefreshJitter = 0.05;  ///< of the refresh delay, in either direction

inline constexpr const char* kDisplayNamePattern = R"(^[a-zA-Z0-9_\- ]+$)";
inline constexpr const char* kDisplayNameError =
    "Display name must be 3-32 characters: letters, numbers, spaces, hyphens, underscores";

inline constexpr std::array<std::string_view, 4> kInviteReasons{"invite_invalid", "invite_already_redeemed",
                                                                "invite_revoked", "invite_required"};
inline constexpr std::array<std::string_view, 2> kPermanentReasons{"signature_mismatch", "invalid_address"};

namespace path {
inline constexpr const char* kRegister = "/auth/register";
inline constexpr const char* kChallenge = "/auth/challenge";
inline constexpr const char* kVerify = "/auth/verify";
inline constexpr const char* kDisplayName = "/api/profile/display_name";
}  // namespace path

/// Reasons of the component's own errors.
namespace reason {
inline constexpr const char* kManagerClosed = "manager_closed";
inline constexpr const char* kNotAuthenticated = "not_authenticated";
inline constexpr const char* kTokenExpired = "token_expired";
inline constexpr const char* kEraChangePending = "era_change_pending";
inline constexpr const char* kEraMismatch = "era_mismatch";
inline constexpr const char* kWalletMismatch = "wallet_mismatch";
inline constexpr const char* kWalletSecretChanged = "wallet_secret_changed";
inline constexpr const char* kUnexpectedAuthState = "unexpected_auth_state";
inline constexpr const char* kInvalidAddress = "invalid_address";
inline constexpr const char* kUnauthorized = "unauthorized";
inline constexpr const char* kInvalidRequest = "invalid_request";
inline constexpr const char* kSignatureMismatch = "signature_mismatch";
inline constexpr const char* kProfileUnauthorized = "profile_unauthorized";
inline constexpr const char* kValidationFailed = "validation_failed";
inline constexpr const char* kRateLimited = "rate_limited";
}  // namespace reason

}  // namespace tessaline::auth
