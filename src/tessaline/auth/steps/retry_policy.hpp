#pragma once

#include <optional>
#include <string_view>

namespace tessaline::auth {

/// What is done about an answer of the server.
enum class Action {
  kGiveBack,            ///< the caller gets the answer
  kRefuse,              ///< AuthError with `reason`
  kRefuseRegistration,  ///< RegistrationError with the server's reason
  kProfileInvalid,      ///< ProfileError "validation_failed" with the server's message
  kProfileRateLimited,  ///< ProfileError "rate_limited" with a retry hint
  kWaitAsTold,          ///< try again after Retry-After, the back-off delay unchanged
  kBackOff,             ///< try again after the back-off delay
};

struct Verdict {
  Action action;
  std::string_view reason{};  ///< kRefuse only

  bool operator==(const Verdict&) const = default;
};

/// Classifies an answer by HTTP status, endpoint and the server's own reason (its "error" text, if any).
///
/// A 403 refuses only a registration; 404, 409 and 410 come back only from a verification, where
/// they mean a stale challenge; anything not named is taken for a passing fault.
Verdict classify(long status, std::string_view path, bool is_verify,
                 std::optional<std::string_view> server_reason);

}  // namespace tessaline::auth
