#include <dirent.h>

#include <future>

#include "loopback_server.hpp"

namespace tessaline::auth::http {
namespace {

using testing::answer_of;
using testing::AnsweringServer;
using testing::Connection;
using testing::failure_of;
using testing::LoopbackServer;
using testing::request_for;
using testing::WireRequest;

std::size_t open_descriptors() {
  std::size_t count = 0;
  DIR* directory = opendir("/proc/self/fd");
  while (readdir(directory) != nullptr) ++count;
  closedir(directory);
  return count;
}

int unused_port() {
  const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  EXPECT_EQ(bind(descriptor, reinterpret_cast<sockaddr*>(&address), size), 0);
  EXPECT_EQ(getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size), 0);
  close(descriptor);
  return ntohs(address.sin_port);
}

TEST(Connection, RefusedByNobodyThere) {
  const std::string peer = "127.0.0.1:" + std::to_string(unused_port());
  const auto failure = failure_of(request_for("http://" + peer + "/private?private"));
  EXPECT_EQ(failure.kind, FailureKind::kRefused);
  EXPECT_EQ(failure.message, "connection refused by " + peer);
}

TEST(Connection, UnknownHost) {
  const auto failure = failure_of(request_for("http://nobody.invalid/private"));
  EXPECT_EQ(failure.kind, FailureKind::kUnresolvable);
  EXPECT_EQ(failure.message, "name of host nobody.invalid:80 cannot be resolved");
}

TEST(Connection, UnreachableNetwork) {
  const auto failure = failure_of(request_for("http://255.255.255.255/"));
  EXPECT_TRUE(failure.kind == FailureKind::kUnreachable || failure.kind == FailureKind::kRefused)
      << failure.message;
}

TEST(Connection, ResetAtOnce) {
  LoopbackServer server([](Connection& connection) { connection.reset(); });
  EXPECT_EQ(failure_of(request_for(server.url())).kind, FailureKind::kReset);
}

TEST(Connection, ResetWithinTheBody) {
  LoopbackServer server([](Connection& connection) {
    WireRequest wire;
    connection.read_request(wire);
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n123");
    connection.reset();
  });
  const auto kind = failure_of(request_for(server.url())).kind;
  EXPECT_TRUE(kind == FailureKind::kReset || kind == FailureKind::kTruncated);
}

TEST(Connection, ResetWhileSending) {
  LoopbackServer server([](Connection& connection) {
    connection.read_bytes(1000);
    connection.reset();
  });
  Request request = request_for(server.url(), "POST");
  request.body = std::string(20'000'000, 'x');
  EXPECT_EQ(failure_of(request).kind, FailureKind::kReset);
  EXPECT_EQ(server.accepted(), 1);
}

TEST(Connection, IsReused) {
  AnsweringServer server(answer_of(200, "x"));
  for (int round = 0; round < 50; ++round) EXPECT_EQ(perform(request_for(server->url(), "POST")).body, "x");
  EXPECT_EQ(server->accepted(), 1);
}

TEST(Connection, IsReusedBetweenThreads) {
  AnsweringServer server(answer_of(200, "x"));
  for (int round = 0; round < 5; ++round) {
    std::thread([&] { EXPECT_EQ(perform(request_for(server->url())).status, 200); }).join();
  }
  EXPECT_EQ(server->accepted(), 1);
}

TEST(Connection, OfTwoServersAreBothKept) {
  AnsweringServer one(answer_of(200, "one"));
  AnsweringServer two(answer_of(200, "two"));
  for (int round = 0; round < 10; ++round) {
    EXPECT_EQ(perform(request_for(one->url())).body, "one");
    EXPECT_EQ(perform(request_for(two->url())).body, "two");
  }
  EXPECT_EQ(one->accepted(), 1);
  EXPECT_EQ(two->accepted(), 1);
}

TEST(Connection, ClosedWhileIdleIsReplaced) {
  LoopbackServer server([](Connection& connection) {
    WireRequest wire;
    if (connection.read_request(wire)) connection.send(answer_of(200, "x"));
  });
  for (int round = 0; round < 20; ++round) EXPECT_EQ(perform(request_for(server.url(), "POST")).body, "x");
  EXPECT_EQ(server.accepted(), 20);
}

TEST(Connection, ThatSpeaksUnaskedIsReplaced) {
  std::promise<void> answered;
  std::promise<void> spoken;
  LoopbackServer server([&](Connection& connection) {
    WireRequest wire;
    while (connection.read_request(wire)) {
      if (!connection.send(answer_of(200, connection.index() == 0 ? "first" : "second"))) return;
      if (connection.index() > 0) continue;
      answered.get_future().wait_for(testing::kPatience);
      connection.send(answer_of(200, "nobody's"));
      spoken.set_value();
      connection.closed_within(testing::kPatience);
      return;
    }
  });
  EXPECT_EQ(perform(request_for(server.url())).body, "first");
  answered.set_value();
  ASSERT_EQ(spoken.get_future().wait_for(testing::kPatience), std::future_status::ready);
  EXPECT_EQ(perform(request_for(server.url())).body, "second");
  EXPECT_EQ(perform(request_for(server.url())).body, "second");
  EXPECT_EQ(server.accepted(), 2);
}

TEST(Connection, ClosedOnArrivalOfTheNextRequestIsReplaced) {
  LoopbackServer server([](Connection& connection) {
    WireRequest wire;
    if (connection.read_request(wire)) connection.send(answer_of(200, "x"));
    connection.read_bytes(1);
  });
  for (int round = 0; round < 10; ++round) EXPECT_EQ(perform(request_for(server.url(), "POST")).body, "x");
  EXPECT_EQ(server.accepted(), 10);
}

TEST(Connection, ResetWhileTakingTheNextRequestIsReplacedOnce) {
  for (const int resets : {1, 2}) {
    LoopbackServer server([resets](Connection& connection) {
      WireRequest wire;
      if (connection.index() == 0) {
        if (!connection.read_request(wire)) return;
        connection.send(answer_of(200, "first"));
      }
      if (connection.index() < resets) {
        connection.read_bytes(1000);
        connection.reset();
        return;
      }
      if (connection.read_request(wire)) connection.send(answer_of(200, "second"));
    });
    EXPECT_EQ(perform(request_for(server.url())).body, "first");
    Request request = request_for(server.url(), "POST");
    request.body = std::string(20'000'000, 'x');
    if (resets == 1) {
      EXPECT_EQ(perform(request).body, "second");
    } else {
      EXPECT_EQ(failure_of(request).kind, FailureKind::kReset);
    }
    EXPECT_EQ(server.accepted(), 2);
  }
}

TEST(Connection, FreshOneThatFailsIsNotRepeated) {
  LoopbackServer server([](Connection& connection) {
    WireRequest wire;
    connection.read_request(wire);
  });
  EXPECT_EQ(failure_of(request_for(server.url(), "POST")).kind, FailureKind::kReset);
  EXPECT_EQ(server.accepted(), 1);
}

TEST(Connection, AnsweredInPartIsNotRepeated) {
  std::atomic<int> requests = 0;
  LoopbackServer server([&](Connection& connection) {
    for (WireRequest wire; connection.read_request(wire);) {
      if (++requests == 1) {
        connection.send(answer_of(200, "x"));
      } else {
        connection.send("HTTP/1.1 200 OK\r\nContent-Le");
        return;
      }
    }
  });
  EXPECT_EQ(perform(request_for(server.url())).status, 200);
  EXPECT_EQ(failure_of(request_for(server.url())).kind, FailureKind::kReset);
  EXPECT_EQ(requests, 2);
}

TEST(Connection, ManyThreadsAtOnce) {
  AnsweringServer server([](const WireRequest& wire) { return answer_of(200, wire.body); });
  std::vector<std::thread> threads;
  std::atomic<int> good = 0;
  for (int index = 0; index < 16; ++index) {
    threads.emplace_back([&, index] {
      for (int round = 0; round < 25; ++round) {
        Request request = request_for(server->url(), "POST");
        request.body = std::to_string(index) + "/" + std::to_string(round);
        good += perform(request).body == *request.body ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(good, 16 * 25);
  EXPECT_LE(server->accepted(), 16);
}

TEST(Connection, DescriptorsDoNotAccumulate) {
  AnsweringServer steady(answer_of(200, "x"));
  perform(request_for(steady->url()));
  const auto before = open_descriptors();
  for (int round = 0; round < 300; ++round) perform(request_for(steady->url()));
  EXPECT_EQ(open_descriptors(), before);
}

TEST(Connection, DescriptorsAreBoundedOverManyServers) {
  const auto rounds = [](int count) {
    for (int round = 0; round < count; ++round) {
      AnsweringServer server(answer_of(200, "x"));
      perform(request_for(server->url()));
    }
  };
  rounds(10);
  const auto before = open_descriptors();
  rounds(30);
  EXPECT_LE(open_descriptors(), before + 2);
}

}  // namespace
}  // namespace tessaline::auth::http
