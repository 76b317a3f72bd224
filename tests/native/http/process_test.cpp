#include <sys/wait.h>

#include <future>

#include "forks.hpp"
#include "leave.hpp"
#include "loopback_server.hpp"

#if defined(__SANITIZE_THREAD__)
#define TESSALINE_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TESSALINE_UNDER_TSAN 1
#endif
#endif

namespace tessaline::auth::http {
namespace {

using namespace std::chrono_literals;
using testing::answer_of;
using testing::AnsweringServer;
using testing::Connection;
using testing::failure_of;
using testing::leave;
using testing::LoopbackServer;
using testing::request_for;
using testing::WireRequest;

constexpr int kGood = 42;

/// The exit status of a child forked here; -1 if a signal ended it.
template <typename Work>
int status_of_child(Work work) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(10);
    leave(work());
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Fork, ChildUsesAConnectionOfItsOwn) {
  AnsweringServer server(answer_of(200, "x"));
  EXPECT_EQ(perform(request_for(server->url())).status, 200);
  const int status = status_of_child([&] {
    for (int round = 0; round < 3; ++round) {
      if (perform(request_for(server->url("/child"))).status != 200) return 1;
    }
    return kGood;
  });
  EXPECT_EQ(status, kGood);
  EXPECT_EQ(server->accepted(), 2);
  EXPECT_EQ(perform(request_for(server->url())).status, 200);
  EXPECT_EQ(server->accepted(), 2);
  EXPECT_EQ(server.requests().size(), 5U);
}

TEST(Fork, ChildKeepsNoCopyOfAConnection) {
  std::promise<bool> closed;
  LoopbackServer server([&](Connection& connection) {
    WireRequest wire;
    connection.read_request(wire);
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n");
    closed.set_value(connection.closed_within(testing::kPatience));
  });
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  pid_t child = -1;
  const auto failure = failure_of(request_for(server.url()), [&] {
    child = fork();
    if (child != 0) return false;
    // Continues while the parent closes its connection.
    ::close(pipe_ends[1]);
    char byte = 0;
    alarm(10);
    leave(read(pipe_ends[0], &byte, 1) == 0 ? kGood : 1);
  });
  EXPECT_EQ(failure.kind, FailureKind::kInterrupted);
  EXPECT_TRUE(closed.get_future().get());
  ::close(pipe_ends[1]);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), kGood);
  ::close(pipe_ends[0]);
}

TEST(Fork, WithinATickEndsTheChildsRequestOnly) {
  std::promise<void> forked;
  LoopbackServer server([&](Connection& connection) {
    WireRequest wire;
    if (!connection.read_request(wire)) return;
    forked.get_future().wait_for(testing::kPatience);
    connection.send(answer_of(200, "x"));
  });
  pid_t child = -1;
  try {
    const Response response = perform(request_for(server.url()), [&] {
      if (child != -1) return true;
      child = fork();
      if (child != 0) forked.set_value();
      return true;
    });
    if (child == 0) leave(1);
    EXPECT_EQ(response.body, "x");
  } catch (const TransportFailure& failure) {
    if (child == 0) leave(failure.kind() == FailureKind::kReset ? kGood : 2);
    ADD_FAILURE() << failure.what();
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), kGood);
}

TEST(Fork, WhileOtherThreadsAreBusy) {
  AnsweringServer server(answer_of(200, "x"));
  std::atomic<bool> stop = false;
  std::vector<std::thread> threads;
  for (int index = 0; index < 3; ++index) {
    threads.emplace_back([&] {
      while (!stop) EXPECT_EQ(perform(request_for(server->url())).status, 200);
    });
  }
  for (int round = 0; round < 10; ++round) {
    EXPECT_EQ(status_of_child([&] { return perform(request_for(server->url())).status == 200 ? kGood : 1; }),
              kGood);
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

// One of the two threads is always inside, unless the other is kept from entering.
TEST(Fork, ComesBeforeWhoGoesInLater) {
  std::atomic<bool> stop = false;
  std::atomic<int> inside = 0;
  std::atomic<int> entries = 0;
  const auto take_turns = [&] {
    while (!stop) {
      const process::Inside here;
      ++inside;
      const int mine = ++entries;
      const auto end = std::chrono::steady_clock::now() + 50ms;
      while (entries == mine && std::chrono::steady_clock::now() < end) std::this_thread::yield();
      --inside;
    }
  };
  std::thread one(take_turns);
  std::thread other(take_turns);
  while (entries < 3) std::this_thread::yield();
  process::before_fork();
  EXPECT_EQ(inside, 0);
  process::after_fork_in_parent();
  stop = true;
  one.join();
  other.join();
}

#ifndef TESSALINE_UNDER_TSAN

class Exit : public ::testing::Test {
 protected:
  Exit() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// In the child of a death test: calls exit() while threads are busy in every way.
[[noreturn]] void exit_with_busy_threads() {
  auto& hanging =
      *new LoopbackServer([](Connection& connection) { connection.closed_within(testing::kPatience); });
  auto& answering = *new AnsweringServer(answer_of(200, "x"));
  static std::atomic<int> arrived = 0;
  static std::atomic<int> returned = 0;
  for (int index = 0; index < 3; ++index) {
    std::thread([&] {
      perform(request_for(answering->url()));
      ++arrived;
      for (;;) perform(request_for(answering->url()));
    }).detach();
    std::thread([&] {
      perform(request_for(answering->url()));
      ++arrived;
      failure_of(request_for(hanging.url()));
      ++returned;
    }).detach();
  }
  while (arrived < 6) std::this_thread::yield();
  alarm(5);
  std::exit(returned == 0 ? kGood : 1);
}

TEST_F(Exit, LeavesBusyThreadsBehind) {
  EXPECT_EXIT(exit_with_busy_threads(), ::testing::ExitedWithCode(kGood), "");
}

// Registered before the first request, so it runs after ours.
void late_in_exit() {
  static const std::string url = "http://127.0.0.1:9/";
  std::promise<void>& returned = *new std::promise<void>;
  std::thread([&] {
    failure_of(request_for(url));
    returned.set_value();
  }).detach();
  const bool parked = returned.get_future().wait_for(200ms) == std::future_status::timeout;
  const bool refused = failure_of(request_for(url)).message == "process is exiting";
  leave(parked && refused ? kGood : 1);
}

[[noreturn]] void exit_and_go_on() {
  std::atexit(late_in_exit);
  AnsweringServer server(answer_of(200));
  perform(request_for(server->url()));
  alarm(5);
  std::exit(2);
}

TEST_F(Exit, ParksWhoeverComesLate) {
  EXPECT_EXIT(exit_and_go_on(), ::testing::ExitedWithCode(kGood), "");
}

[[noreturn]] void exit_without_any_request() {
  std::exit(kGood);
}

TEST_F(Exit, NeedsNothingWhenNothingWasDone) {
  EXPECT_EXIT(exit_without_any_request(), ::testing::ExitedWithCode(kGood), "");
}

#endif

}  // namespace
}  // namespace tessaline::auth::http
