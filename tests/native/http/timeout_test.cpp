#include "loopback_server.hpp"

namespace tessaline::auth::http {
namespace {

using namespace std::chrono_literals;
using testing::answer_of;
using testing::AnsweringServer;
using testing::Connection;
using testing::failure_of;
using testing::LoopbackServer;
using testing::request_for;
using testing::WireRequest;

using Clock = std::chrono::steady_clock;

const auto kUntilPeerCloses = testing::kPatience;

TEST(Timeout, SilentServer) {
  LoopbackServer server([](Connection& connection) { connection.closed_within(kUntilPeerCloses); });
  Request request = request_for(server.url("/private"));
  request.timeout = 250ms;
  const auto begin = Clock::now();
  const auto failure = failure_of(request);
  const auto took = Clock::now() - begin;
  EXPECT_EQ(failure.kind, FailureKind::kTimedOut);
  EXPECT_EQ(failure.message, "timed out after 0.25 s waiting for " + server.peer());
  EXPECT_GE(took, 245ms);
  EXPECT_LT(took, 1s);
}

TEST(Timeout, TricklingServer) {
  LoopbackServer server([](Connection& connection) {
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n");
    while (connection.send("x") && !connection.closed_within(20ms)) {
    }
  });
  Request request = request_for(server.url());
  request.timeout = 300ms;
  const auto begin = Clock::now();
  EXPECT_EQ(failure_of(request).kind, FailureKind::kTimedOut);
  EXPECT_LT(Clock::now() - begin, 1s * testing::slower());
}

TEST(Timeout, BoundsAllHopsTogether) {
  std::atomic<int> hops = 0;
  LoopbackServer server([&](Connection& connection) {
    for (WireRequest wire; connection.read_request(wire);) {
      if (connection.closed_within(120ms)) return;
      connection.send(answer_of(302, "", "Location: /" + std::to_string(++hops) + "\r\n"));
    }
  });
  Request request = request_for(server.url());
  request.timeout = 300ms;
  const auto begin = Clock::now();
  EXPECT_EQ(failure_of(request).kind, FailureKind::kTimedOut);
  EXPECT_LT(Clock::now() - begin, 1s * testing::slower());
  EXPECT_LT(hops, 4);
}

TEST(Timeout, NothingLeftSendsNothing) {
  AnsweringServer server(answer_of(200));
  for (const auto timeout : {0.0, -1.0}) {
    Request request = request_for(server->url());
    request.timeout = std::chrono::duration<double>(timeout);
    EXPECT_EQ(failure_of(request).kind, FailureKind::kTimedOut);
  }
  EXPECT_EQ(perform(request_for(server->url())).status, 200);
  EXPECT_EQ(server->accepted(), 1);
}

TEST(Timeout, TinyIsNotEndless) {
  LoopbackServer server([](Connection& connection) { connection.closed_within(kUntilPeerCloses); });
  Request request = request_for(server.url());
  request.timeout = 1us;
  const auto begin = Clock::now();
  EXPECT_EQ(failure_of(request).kind, FailureKind::kTimedOut);
  EXPECT_LT(Clock::now() - begin, 1s * testing::slower());
}

TEST(Timeout, EndlessIsAccepted) {
  AnsweringServer server(answer_of(200));
  Request request = request_for(server->url());
  request.timeout = std::chrono::duration<double>(std::numeric_limits<double>::infinity());
  EXPECT_EQ(perform(request).status, 200);
  request.timeout = std::nullopt;
  EXPECT_EQ(perform(request).status, 200);
}

TEST(Timeout, LeavesNoConnectionBehind) {
  std::atomic<bool> closed = false;
  {
    LoopbackServer server([&](Connection& connection) {
      if (connection.index() == 0) {
        closed = connection.closed_within(kUntilPeerCloses);
        return;
      }
      for (WireRequest wire; connection.read_request(wire);) connection.send(answer_of(200, "second"));
    });
    Request request = request_for(server.url());
    request.timeout = 100ms;
    EXPECT_EQ(failure_of(request).kind, FailureKind::kTimedOut);
    EXPECT_EQ(perform(request_for(server.url())).body, "second");
  }
  EXPECT_TRUE(closed);
}

}  // namespace
}  // namespace tessaline::auth::http
