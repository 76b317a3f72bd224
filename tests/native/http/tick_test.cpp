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

using Clock = std::chrono::steady_clock;

TEST(Tick, EndsARequest) {
  std::atomic<bool> closed = false;
  {
    LoopbackServer server(
        [&](Connection& connection) { closed = connection.closed_within(testing::kPatience); });
    const auto begin = Clock::now();
    const auto failure = failure_of(request_for(server.url()), [] { return false; });
    EXPECT_EQ(failure.kind, FailureKind::kInterrupted);
    EXPECT_LT(Clock::now() - begin, 500ms * testing::slower());
  }
  EXPECT_TRUE(closed);
}

TEST(Tick, ComesFiveTimesASecond) {
  LoopbackServer server([](Connection& connection) { connection.closed_within(testing::kPatience); });
  Request request = request_for(server.url());
  request.timeout = 900ms * testing::slower();
  int calls = 0;
  auto last = Clock::now();
  auto longest = Clock::duration::zero();
  const auto failure = failure_of(request, [&] {
    ++calls;
    longest = std::max(longest, Clock::now() - std::exchange(last, Clock::now()));
    return true;
  });
  EXPECT_EQ(failure.kind, FailureKind::kTimedOut);
  EXPECT_GE(calls, 4);
  EXPECT_LE(longest, 400ms * testing::slower());  // a machine under load wakes late
}

TEST(Tick, ComesWhileBytesTrickle) {
  LoopbackServer server([](Connection& connection) {
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n");
    while (connection.send("x") && !connection.closed_within(5ms)) {
    }
  });
  const auto begin = Clock::now();
  EXPECT_EQ(failure_of(request_for(server.url()), [] { return false; }).kind, FailureKind::kInterrupted);
  EXPECT_LT(Clock::now() - begin, 500ms * testing::slower());
}

TEST(Tick, IsNotNeededByAQuickRequest) {
  AnsweringServer server(answer_of(200));
  int calls = 0;
  EXPECT_EQ(perform(request_for(server->url()), [&] { return ++calls, true; }).status, 200);
  EXPECT_EQ(calls, 0);
}

TEST(Tick, WhatItThrowsComesOut) {
  LoopbackServer server([](Connection& connection) { connection.closed_within(testing::kPatience); });
  const auto interrupt = []() -> bool { throw std::string("thrown"); };
  EXPECT_THROW(perform(request_for(server.url()), interrupt), std::string);
}

TEST(Tick, MayPerformARequestItself) {
  AnsweringServer inner(answer_of(200, "inner"));
  LoopbackServer outer([](Connection& connection) { connection.closed_within(testing::kPatience); });
  std::string body;
  failure_of(request_for(outer.url()), [&] {
    body = perform(request_for(inner->url())).body;
    return false;
  });
  EXPECT_EQ(body, "inner");
}

}  // namespace
}  // namespace tessaline::auth::http
