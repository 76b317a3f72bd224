#include "tessaline/auth/steps/retry_policy.hpp"

#include <algorithm>

#include "tessaline/auth/constants.hpp"

namespace tessaline::auth {
namespace {

Verdict refuse(std::string_view why) {
  return {Action::kRefuse, why};
}

bool is_invite_reason(std::optional<std::string_view> server_reason) {
  return server_reason && std::ranges::find(kInviteReasons, *server_reason) != kInviteReasons.end();
}

Verdict refused_registration(long status, std::optional<std::string_view> server_reason) {
  if (is_invite_reason(server_reason)) return {Action::kRefuseRegistration};
  return refuse(status == 400 ? reason::kInvalidAddress : reason::kUnauthorized);
}

Verdict unauthorized(std::string_view path) {
  if (path == path::kVerify) return refuse(reason::kSignatureMismatch);
  if (path == path::kDisplayName) return refuse(reason::kProfileUnauthorized);
  return refuse(reason::kUnauthorized);
}

}  // namespace

Verdict classify(long status, std::string_view path, bool is_verify,
                 std::optional<std::string_view> server_reason) {
  const bool profile = path == path::kDisplayName;
  if ((status == 400 || status == 403) && path == path::kRegister) {
    return refused_registration(status, server_reason);
  }
  if (status == 400) return profile ? Verdict{Action::kProfileInvalid} : refuse(reason::kInvalidRequest);
  if (status == 401) return unauthorized(path);
  if (is_verify && (status == 404 || status == 410 || status == 409)) return {Action::kGiveBack};
  if (status == 429) return {profile ? Action::kProfileRateLimited : Action::kWaitAsTold};
  if (status >= 200 && status < 300) return {Action::kGiveBack};
  return {Action::kBackOff};
}

}  // namespace tessaline::auth
