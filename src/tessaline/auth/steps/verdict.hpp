#pragma once

#include <optional>
#include <string_view>

namespace tessaline::auth {

/// What to do about a response of the server.
enum class Action {
  kGiveBack,            ///< return the response to the caller
  kRefuse,              ///< AuthError with `reason`
  kRefuseRegistration,  ///< RegistrationError with the server's reason
  kProfileInvalid,      ///< ProfileError "validation_failed" with the server's message
  kProfileRateLimited,  ///< ProfileError "rate_limited" with the delay to retry after
  kWaitAsTold,          ///< retry after the delay in Retry-After; the back-off delay stays
  kBackOff,             ///< retry after the back-off delay
};

struct Verdict {
  Action action;
  std::string_view reason{};  ///< kRefuse only

  bool operator==(const Verdict&) const = default;
};

/// Classifies a response by HTTP status, endpoint and the server's own reason (its "error" text, if any).
///
/// 403 is permanent only for a registration; 404, 409 and 410 are returned only for a verification, where
/// they mean a stale challenge; everything else is a transient error.
Verdict classify(long status, std::string_view path, bool is_verify,
                 std::optional<std::string_view> server_reason);

}  // namespace tessaline::auth
