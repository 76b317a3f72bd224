#include "tessaline/auth/http/session_pool.hpp"

#include <sys/socket.h>

#include "loopback_server.hpp"
#include "tessaline/auth/http/attempt.hpp"
#include "tessaline/auth/http/process.hpp"

namespace tessaline::auth::http {
namespace {

using namespace std::chrono_literals;
using testing::AnsweringServer;

const SessionPool::TimePoint kStart{1h};

class SessionPoolTest : public ::testing::Test {
 protected:
  /// Leaves the session with a connection to the server.
  void connect(Session& session) {
    Hop hop;
    hop.url = parse_url(server_->url());
    hop.method = "GET";
    Attempt attempt(session, hop);
    attempt.prepare({}, Deadline(5s));
    EXPECT_TRUE(attempt.run({}));
  }

  Session* use(const std::string& origin, SessionPool::TimePoint when) {
    Session& session = pool_.take(origin, when);
    connect(session);
    pool_.give_back(session, when);
    return &session;
  }

  AnsweringServer server_{testing::answer_of(200)};
  process::Inside inside_;
  SessionPool pool_;
};

TEST_F(SessionPoolTest, GivesAnOriginItsSessionAgain) {
  Session* one = use("one", kStart);
  Session* two = use("two", kStart + 1s);
  EXPECT_NE(one, two);
  EXPECT_EQ(use("one", kStart + 2s), one);
  EXPECT_EQ(use("two", kStart + 3s), two);
}

TEST_F(SessionPoolTest, GivesTheLatestFirst) {
  Session& first = pool_.take("one", kStart);
  Session& second = pool_.take("one", kStart);
  pool_.give_back(second, kStart + 1s);
  pool_.give_back(first, kStart + 2s);
  EXPECT_EQ(&pool_.take("one", kStart + 3s), &first);
}

TEST_F(SessionPoolTest, GivesASessionWithoutConnectionToAnyone) {
  Session& session = pool_.take("one", kStart);
  pool_.give_back(session, kStart);
  EXPECT_EQ(&pool_.take("two", kStart), &session);
}

TEST_F(SessionPoolTest, ClosesTheOldestWhenEnoughOriginsAreWarm) {
  Session* first = use("0", kStart);
  for (std::size_t index = 1; index < SessionPool::kWarmOrigins; ++index) {
    use(std::to_string(index), kStart + std::chrono::seconds(index));
  }
  EXPECT_EQ(use("0", kStart + 10s), first);
  use("more", kStart + 11s);
  EXPECT_EQ(pool_.idle_count(), SessionPool::kWarmOrigins);
  EXPECT_EQ(use("0", kStart + 12s), first);
}

TEST_F(SessionPoolTest, IsBounded) {
  std::vector<Session*> leased;
  for (std::size_t index = 0; index < SessionPool::kMaxIdle + 5; ++index)
    leased.push_back(&pool_.take("one", kStart));
  for (Session* session : leased) pool_.give_back(*session, kStart);
  EXPECT_EQ(pool_.idle_count(), SessionPool::kMaxIdle);
}

TEST_F(SessionPoolTest, ClosesWhatWasIdleTooLong) {
  use("old", kStart);
  use("new", kStart + 30s);
  use("new", kStart + SessionPool::kMaxIdleTime);
  EXPECT_EQ(pool_.idle_count(), 2U);
  use("new", kStart + SessionPool::kMaxIdleTime + 1s);
  EXPECT_EQ(pool_.idle_count(), 1U);
}

}  // namespace
}  // namespace tessaline::auth::http
