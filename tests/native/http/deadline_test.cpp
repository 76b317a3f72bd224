#include "tessaline/auth/http/deadline.hpp"

#include <gtest/gtest.h>

#include <limits>

namespace tessaline::auth::http {
namespace {

using std::chrono::duration;
using std::chrono::milliseconds;

const Deadline::Clock::time_point kNow{std::chrono::hours(1)};

TEST(Deadline, NoneNeverPasses) {
  const Deadline none(std::nullopt, kNow);
  EXPECT_FALSE(none.bounded());
  EXPECT_FALSE(none.passed(kNow + std::chrono::hours(100'000)));
}

TEST(Deadline, TooLongIsNone) {
  for (const double seconds : {std::numeric_limits<double>::infinity(), 1e300, 1e9}) {
    EXPECT_FALSE(Deadline(duration<double>(seconds), kNow).bounded());
  }
}

TEST(Deadline, NothingLeftHasPassedAtOnce) {
  for (const double seconds : {0.0, -0.0, -1.0, -std::numeric_limits<double>::infinity(),
                               std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_TRUE(Deadline(duration<double>(seconds), kNow).passed(kNow)) << seconds;
  }
}

TEST(Deadline, WhatIsLeftIsNeverZero) {
  const Deadline deadline(duration<double>(0.0005), kNow);
  EXPECT_FALSE(deadline.passed(kNow));
  EXPECT_EQ(deadline.left(kNow), milliseconds(1));
  EXPECT_EQ(deadline.left(kNow + std::chrono::seconds(1)), milliseconds(1));
  EXPECT_EQ(Deadline(duration<double>(2.5), kNow).left(kNow + milliseconds(500)), milliseconds(2000));
}

TEST(Deadline, PassesAtItsEnd) {
  const Deadline deadline(duration<double>(0.25), kNow);
  EXPECT_FALSE(deadline.passed(kNow + milliseconds(249)));
  EXPECT_TRUE(deadline.passed(kNow + milliseconds(250)));
}

}  // namespace
}  // namespace tessaline::auth::http
