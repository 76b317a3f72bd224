#include "tessaline/auth/http/session_pool.hpp"

#include <sys/socket.h>

#include <thread>

#include "loopback_server.hpp"
#include "tessaline/auth/http/limits.hpp"
#include "tessaline/auth/http/process.hpp"
#include "tessaline/auth/http/transfer.hpp"

namespace tessaline::auth::http {
namespace {

using namespace std::chrono_literals;
using testing::AnsweringServer;

const SessionPool::TimePoint kStart{1h};

class SessionPoolTest : public ::testing::Test {
 protected:
  static Route route_to(const std::string& origin) { return {origin, std::nullopt, nullptr}; }

  Session& take(const std::string& origin, SessionPool::TimePoint when, bool fresh = false) {
    const Route route = route_to(origin);
    return pool_.take({route, fresh, false, deadline_, ticker_}, when);
  }

  /// Leaves the session with a connection to the server.
  void connect(Session& session) {
    Hop hop;
    hop.url = parse_url(server_->url());
    hop.method = "GET";
    const Route route = route_to(hop.url.origin());
    Transfer transfer(session, hop, route);
    transfer.prepare(Deadline(5s));
    EXPECT_TRUE(transfer.run(ticker_));
  }

  Session* use(const std::string& origin, SessionPool::TimePoint when) {
    Session& session = take(origin, when);
    connect(session);
    pool_.give_back(session, when);
    return &session;
  }

  AnsweringServer server_{testing::answer_of(200)};
  process::Inside inside_;
  SessionPool pool_;
  const Deadline deadline_{testing::kPatience};
  const Tick no_tick_;
  Ticker ticker_{no_tick_, "h:1"};
};

TEST_F(SessionPoolTest, GivesAnOriginItsSessionAgain) {
  Session* one = use("one", kStart);
  Session* two = use("two", kStart + 1s);
  EXPECT_NE(one, two);
  EXPECT_EQ(use("one", kStart + 2s), one);
  EXPECT_EQ(use("two", kStart + 3s), two);
}

TEST_F(SessionPoolTest, GivesTheLatestFirst) {
  Session& first = take("one", kStart);
  Session& second = take("one", kStart);
  pool_.give_back(second, kStart + 1s);
  pool_.give_back(first, kStart + 2s);
  EXPECT_EQ(&take("one", kStart + 3s), &first);
}

TEST_F(SessionPoolTest, GivesASessionWithoutConnectionToAnyone) {
  Session& session = take("one", kStart);
  pool_.give_back(session, kStart);
  EXPECT_EQ(&take("two", kStart), &session);
}

TEST_F(SessionPoolTest, ClosesTheOldestWhenEnoughOriginsAreWarm) {
  Session* first = use("0", kStart);
  for (std::size_t index = 1; index < kWarmOrigins; ++index) {
    use(std::to_string(index), kStart + std::chrono::seconds(index));
  }
  EXPECT_EQ(use("0", kStart + 10s), first);
  use("more", kStart + 11s);
  EXPECT_EQ(pool_.idle_count(), kWarmOrigins);
  EXPECT_EQ(use("0", kStart + 12s), first);
}

TEST_F(SessionPoolTest, IsBounded) {
  std::vector<Session*> leased;
  for (std::size_t index = 0; index < kMostIdle + 5; ++index)
    leased.push_back(&take(std::to_string(index), kStart));
  for (Session* session : leased) pool_.give_back(*session, kStart);
  EXPECT_EQ(pool_.idle_count(), kMostIdle);
}

TEST_F(SessionPoolTest, ClosesWhatWasIdleTooLong) {
  use("old", kStart);
  use("new", kStart + 30s);
  use("new", kStart + kLongestIdle);
  EXPECT_EQ(pool_.idle_count(), 2U);
  use("new", kStart + kLongestIdle + 1s);
  EXPECT_EQ(pool_.idle_count(), 1U);
}

TEST_F(SessionPoolTest, TellsWhenTheNextIsToBeClosed) {
  EXPECT_EQ(pool_.close_outdated(kStart), std::nullopt);
  use("old", kStart);
  use("new", kStart + 10s);
  EXPECT_EQ(pool_.close_outdated(kStart + 10s), kStart + kLongestIdle);
  EXPECT_EQ(pool_.close_outdated(kStart + kLongestIdle + 1s), kStart + 10s + kLongestIdle);
  EXPECT_EQ(pool_.idle_count(), 1U);
  EXPECT_EQ(pool_.close_outdated(kStart + 1h), std::nullopt);
  EXPECT_EQ(pool_.idle_count(), 0U);
}

TEST_F(SessionPoolTest, GivesNoConnectionToAnotherTrustOrProxy) {
  Session* plain = use("one", kStart);
  Route other = route_to("one");
  other.trust = std::make_shared<const Trust>(TrustStore{});
  EXPECT_NE(&pool_.take({other, false, false, deadline_, ticker_}, kStart), plain);
  Route proxied = route_to("one");
  proxied.proxy = Proxy{"http://p:1", "http", "p", "1"};
  EXPECT_NE(&pool_.take({proxied, false, false, deadline_, ticker_}, kStart), plain);
  EXPECT_EQ(&take("one", kStart), plain);
}

TEST_F(SessionPoolTest, GivesNoUsedConnectionToWhoWantsAFreshOne) {
  Session* used = use("one", kStart);
  EXPECT_NE(&take("one", kStart, true), used);
}

TEST_F(SessionPoolTest, HandsAConnectionOnToWhoWaitsForIt) {
  const auto now = std::chrono::steady_clock::now() + 1h;  // so that no pace makes room
  std::vector<Session*> leased;
  for (std::size_t index = 0; index < kAtOnce; ++index) leased.push_back(&take("one", now));
  connect(*leased.front());
  const Route route = route_to("one");
  std::atomic<Session*> got = nullptr;
  std::thread other([&] {
    const process::Inside inside;
    Ticker ticker(no_tick_, "h:1");
    got = &pool_.take({route, false, false, deadline_, ticker});
  });
  while (pool_.waiting_count() == 0) std::this_thread::yield();
  pool_.give_back(*leased.front(), now);
  other.join();
  EXPECT_EQ(got, leased.front());
}

TEST_F(SessionPoolTest, BeginsOneMoreAtItsPaceForWhoWaits) {
  const auto begin = std::chrono::steady_clock::now();
  for (std::size_t index = 0; index < kAtOnce; ++index) take("one", begin);
  take("one", begin);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, kPace);
}

TEST_F(SessionPoolTest, WhoIsPatientWaitsWhileThereIsAConnection) {
  Session& only = take("one", kStart);
  connect(only);
  const Route route = route_to("one");
  std::atomic<Session*> got = nullptr;
  std::thread other([&] {
    const process::Inside inside;
    Ticker ticker(no_tick_, "h:1");
    got = &pool_.take({route, false, true, deadline_, ticker});
  });
  while (pool_.waiting_count() == 0) std::this_thread::yield();
  pool_.give_back(only, kStart);
  other.join();
  EXPECT_EQ(got, &only);
  EXPECT_NE(&pool_.take({route_to("other"), false, true, deadline_, ticker_}), &only);
}

TEST_F(SessionPoolTest, WhoWaitsTooLongIsTold) {
  const auto now = std::chrono::steady_clock::now() + 1h;
  for (std::size_t index = 0; index < kAtOnce; ++index) take("one", now);
  const Route route = route_to("one");
  const Deadline soon{20ms};
  try {
    pool_.take({route, false, false, soon, ticker_});
    ADD_FAILURE() << "a connection beyond the bound";
  } catch (const TransportFailure& failure) {
    EXPECT_EQ(failure.kind(), FailureKind::kTimedOut);
  }
  EXPECT_EQ(pool_.waiting_count(), 0U);
}

}  // namespace
}  // namespace tessaline::auth::http
