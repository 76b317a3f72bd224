#include "tessaline/auth/wallet/curve.hpp"

#include <gtest/gtest.h>
#include <secp256k1_recovery.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <latch>
#include <string>
#include <thread>
#include <vector>

namespace {

using RandomSource = ssize_t (*)(void*, std::size_t);

std::atomic<RandomSource> random_source = nullptr;
std::atomic<int> random_calls = 0;

ssize_t ask_the_kernel(void* buffer, std::size_t length) {
  return syscall(SYS_getrandom, buffer, length, 0);
}

}  // namespace

// Replaces the C library's function in the whole test program.
extern "C" ssize_t getrandom(void* buffer, std::size_t length, unsigned int flags) {
  ++random_calls;
  const RandomSource source = random_source.load();
  return source != nullptr ? source(buffer, length) : syscall(SYS_getrandom, buffer, length, flags);
}

namespace tessaline::auth::wallet {
namespace {

ssize_t failing(void* /*buffer*/, std::size_t /*length*/) {
  errno = ENOSYS;
  return -1;
}

ssize_t giving_nothing(void* /*buffer*/, std::size_t /*length*/) {
  return 0;
}

ssize_t interrupted_every_other_time(void* buffer, std::size_t length) {
  if (random_calls % 2 == 1) {
    errno = EINTR;
    return -1;
  }
  return ask_the_kernel(buffer, length);
}

ssize_t giving_five_bytes(void* buffer, std::size_t length) {
  return ask_the_kernel(buffer, std::min<std::size_t>(length, 5));
}

bool context_works() {
  std::array<std::uint8_t, 32> key{};
  key.back() = 1;
  secp256k1_pubkey point;
  return secp256k1_ec_pubkey_create(curve_context(), &point, key.data()) == 1;
}

bool context_is_refused() {
  try {
    curve_context();
  } catch (const CurveError&) {
    return true;
  }
  return false;
}

/// An argument that libsecp256k1 reports as illegal: no point has such bytes.
int serialize_impossible_point() {
  const secp256k1_pubkey point{};
  std::array<std::uint8_t, 65> serialized{};
  std::size_t size = serialized.size();
  return secp256k1_ec_pubkey_serialize(curve_context(), serialized.data(), &size, &point,
                                       SECP256K1_EC_UNCOMPRESSED);
}

std::string error_of(int result) {
  try {
    require_curve_success(result, "trial");
  } catch (const CurveError& error) {
    return error.what();
  }
  return {};
}

bool threads_see_one_context() {
  constexpr int kThreads = 16;
  std::latch start(kThreads);
  std::vector<const secp256k1_context*> seen(kThreads);
  std::vector<std::thread> threads;
  for (const secp256k1_context*& context : seen) {
    threads.emplace_back([&start, &context] {
      start.arrive_and_wait();
      context = curve_context();
    });
  }
  for (std::thread& thread : threads) thread.join();
  return std::ranges::all_of(seen,
                             [](const secp256k1_context* context) { return context == curve_context(); });
}

/// A separate process for each case, because a process makes its context only once.
class CurveContextTest : public ::testing::Test {
 protected:
  CurveContextTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

#define EXPECT_IN_NEW_PROCESS(condition) \
  EXPECT_EXIT(std::_Exit((condition) ? 0 : 1), ::testing::ExitedWithCode(0), "")

TEST_F(CurveContextTest, IsMadeAtFirstCallOnly) {
  EXPECT_IN_NEW_PROCESS(random_calls == 0 && curve_context() == curve_context() && random_calls == 1);
}

TEST_F(CurveContextTest, Works) {
  EXPECT_IN_NEW_PROCESS(context_works());
}

TEST_F(CurveContextTest, ThreadsThatComeFirstTogetherShareOne) {
  EXPECT_IN_NEW_PROCESS(threads_see_one_context());
}

TEST_F(CurveContextTest, WorksInTheChildOfAFork) {
  ASSERT_TRUE(context_works());
  const pid_t child = fork();
  if (child == 0) std::_Exit(context_works() ? 0 : 1);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(CurveContextTest, RandomSourceFailureIsAnErrorAndTheNextCallTriesAgain) {
  EXPECT_IN_NEW_PROCESS((random_source = failing, context_is_refused()) && context_is_refused() &&
                        (random_source = nullptr, context_works()));
}

TEST_F(CurveContextTest, RandomSourceThatGivesNothingIsAnError) {
  EXPECT_IN_NEW_PROCESS((random_source = giving_nothing, context_is_refused()));
}

TEST_F(CurveContextTest, InterruptedRandomSourceIsAskedAgain) {
  EXPECT_IN_NEW_PROCESS((random_source = interrupted_every_other_time, context_works()) && random_calls == 2);
}

TEST_F(CurveContextTest, ShortReadsAreJoined) {
  EXPECT_IN_NEW_PROCESS((random_source = giving_five_bytes, context_works()) && random_calls == 7);
}

TEST(CurveFaultTest, SuccessIsNoError) {
  EXPECT_EQ(error_of(1), "");
}

TEST(CurveFaultTest, FailureWithoutAReportIsAnError) {
  EXPECT_EQ(error_of(0), "trial failed");
}

TEST(CurveFaultTest, IllegalArgumentIsAnErrorInsteadOfAnAbort) {
  const std::string error = error_of(serialize_impossible_point());
  EXPECT_TRUE(error.starts_with("trial: ")) << error;
}

TEST(CurveFaultTest, ReportIsAnErrorWhateverTheResult) {
  serialize_impossible_point();
  EXPECT_NE(error_of(1), "");
}

TEST(CurveFaultTest, ReportIsTakenOnce) {
  serialize_impossible_point();
  EXPECT_NE(error_of(1), "");
  EXPECT_EQ(error_of(1), "");
}

TEST(CurveFaultTest, ReportBelongsToItsThread) {
  serialize_impossible_point();
  std::string elsewhere = "not asked";
  std::thread([&elsewhere] { elsewhere = error_of(1); }).join();
  EXPECT_EQ(elsewhere, "");
  EXPECT_NE(error_of(1), "");
}

}  // namespace
}  // namespace tessaline::auth::wallet
