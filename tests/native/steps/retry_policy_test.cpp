#include "tessaline/auth/steps/retry_policy.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string_view>

namespace tessaline::auth {
namespace {

constexpr std::string_view kRegister = "/auth/register";
constexpr std::string_view kChallenge = "/auth/challenge";
constexpr std::string_view kVerify = "/auth/verify";
constexpr std::string_view kProfile = "/api/profile/display_name";
constexpr std::string_view kElsewhere = "/elsewhere";

Verdict refused(std::string_view reason) {
  return {Action::kRefuse, reason};
}

TEST(Verdict, RegistrationRefusedForItsInviteCarriesTheServersReason) {
  for (const long status : {400L, 403L}) {
    for (const std::string_view reason :
         {"invite_invalid", "invite_already_redeemed", "invite_revoked", "invite_required"}) {
      EXPECT_EQ(classify(status, kRegister, false, reason).action, Action::kRefuseRegistration)
          << status << reason;
    }
  }
}

TEST(Verdict, RegistrationRefusedOtherwiseIsInvalidAddressOrUnauthorized) {
  for (const std::optional<std::string_view> reason :
       {std::optional<std::string_view>(), std::optional<std::string_view>("other"),
        std::optional<std::string_view>("invite_"), std::optional<std::string_view>("")}) {
    EXPECT_EQ(classify(400, kRegister, false, reason), refused("invalid_address"));
    EXPECT_EQ(classify(403, kRegister, false, reason), refused("unauthorized"));
  }
}

TEST(Verdict, InviteReasonsMeanNothingOffTheRegistration) {
  EXPECT_EQ(classify(400, kChallenge, false, "invite_required"), refused("invalid_request"));
  EXPECT_EQ(classify(403, kChallenge, false, "invite_required").action, Action::kBackOff);
}

TEST(Verdict, BadRequestIsInvalidExceptForTheProfile) {
  EXPECT_EQ(classify(400, kChallenge, false, {}), refused("invalid_request"));
  EXPECT_EQ(classify(400, kVerify, true, {}), refused("invalid_request"));
  EXPECT_EQ(classify(400, kElsewhere, false, {}), refused("invalid_request"));
  EXPECT_EQ(classify(400, kProfile, false, {}).action, Action::kProfileInvalid);
}

TEST(Verdict, UnauthorizedNamesItsEndpoint) {
  EXPECT_EQ(classify(401, kVerify, true, {}), refused("signature_mismatch"));
  EXPECT_EQ(classify(401, kProfile, false, {}), refused("profile_unauthorized"));
  EXPECT_EQ(classify(401, kRegister, false, "invite_required"), refused("unauthorized"));
  EXPECT_EQ(classify(401, kChallenge, false, {}), refused("unauthorized"));
}

TEST(Verdict, StaleChallengeComesBackOnlyFromAVerification) {
  for (const long status : {404L, 409L, 410L}) {
    EXPECT_EQ(classify(status, kVerify, true, {}).action, Action::kGiveBack);
    EXPECT_EQ(classify(status, kVerify, false, {}).action, Action::kBackOff);
    EXPECT_EQ(classify(status, kChallenge, false, {}).action, Action::kBackOff);
  }
}

TEST(Verdict, RateLimitIsFinalOnlyForTheProfile) {
  EXPECT_EQ(classify(429, kProfile, false, {}).action, Action::kProfileRateLimited);
  EXPECT_EQ(classify(429, kVerify, true, {}).action, Action::kWaitAsTold);
  EXPECT_EQ(classify(429, kElsewhere, false, {}).action, Action::kWaitAsTold);
}

TEST(Verdict, EveryOtherStatusIsGivenBackOrRetried) {
  for (long status = -1; status <= 1000; ++status) {
    if (status == 400 || status == 401 || status == 403 || status == 429) continue;
    const Action expected = status >= 200 && status <= 299 ? Action::kGiveBack : Action::kBackOff;
    for (const std::string_view path : {kRegister, kChallenge, kVerify, kProfile, kElsewhere}) {
      EXPECT_EQ(classify(status, path, false, "invite_required").action, expected) << status << path;
    }
  }
}

}  // namespace
}  // namespace tessaline::auth
