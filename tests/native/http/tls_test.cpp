#include <curl/curl.h>
#include <linux/tcp.h>
#include <sys/wait.h>

#include <future>

#include "forks.hpp"
#include "tessaline/auth/http/tls_context.hpp"
#include "tls_server.hpp"

namespace tessaline::auth::http {
namespace {

using testing::answer_of;
using testing::Connection;
using testing::failure_of;
using testing::Identity;
using testing::LoopbackServer;
using testing::make_identity;
using testing::request_for;
using testing::TlsIdentity;
using testing::TlsStream;
using testing::TrustDirectory;

class Tls : public ::testing::Test {
 protected:
  static testing::Script answering(const Identity& identity, int highest_version = TLS1_3_VERSION) {
    return [&identity, highest_version](Connection& connection) {
      TlsStream stream(connection, identity, highest_version);
      while (!stream.read_head().empty()) stream.send(answer_of(200, "secret"));
    };
  }

  Request request_to(const LoopbackServer& server) const {
    Request request = request_for("https://" + server.peer() + "/private");
    request.trust.ca_file = trusted_.file();
    return request;
  }

  static bool alerts_are_visible() {
    return std::string_view(curl_version_info(CURLVERSION_NOW)->ssl_version).starts_with("OpenSSL");
  }

  // qemu-user answers TCP_INFO with four bytes.
  static bool received_bytes_are_counted() {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    tcp_info info{};
    socklen_t size = sizeof info;
    getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size);
    close(descriptor);
    return size >= offsetof(tcp_info, tcpi_bytes_received) + sizeof info.tcpi_bytes_received;
  }

  const Identity authority_ = make_identity("authority", "", nullptr);
  const Identity good_ = make_identity("server", "IP:127.0.0.1", &authority_);
  const TrustDirectory trusted_{authority_.certificate.get()};
};

TEST_F(Tls, TrustedByFile) {
  LoopbackServer server(answering(good_));
  for (int round = 0; round < 3; ++round) EXPECT_EQ(perform(request_to(server)).body, "secret");
  EXPECT_EQ(server.accepted(), 1);
}

TEST_F(Tls, TrustedByDirectory) {
  LoopbackServer server(answering(good_));
  Request request = request_to(server);
  request.trust = {"", trusted_.path()};
  EXPECT_EQ(perform(request).body, "secret");
}

TEST_F(Tls, NothingIsTrustedWithoutAStore) {
  LoopbackServer server(answering(good_));
  Request request = request_to(server);
  request.trust = {};
  EXPECT_EQ(failure_of(request).kind, FailureKind::kCertificate);
}

TEST_F(Tls, TrustOfOneRequestDoesNotServeAnother) {
  LoopbackServer server(answering(good_));
  EXPECT_EQ(perform(request_to(server)).body, "secret");
  const Identity stranger = make_identity("stranger", "", nullptr);
  const TrustDirectory strangers(stranger.certificate.get());
  Request request = request_to(server);
  request.trust.ca_file = strangers.file();
  EXPECT_EQ(failure_of(request).kind, FailureKind::kCertificate);
}

TEST_F(Tls, UnknownAuthority) {
  const Identity stranger = make_identity("stranger", "", nullptr);
  const Identity identity = make_identity("server", "IP:127.0.0.1", &stranger);
  LoopbackServer server(answering(identity));
  const auto failure = failure_of(request_to(server));
  EXPECT_EQ(failure.kind, FailureKind::kCertificate);
  EXPECT_EQ(failure.message.find("certificate of " + server.peer() + " is not acceptable: "), 0U)
      << failure.message;
  EXPECT_EQ(failure.message.find("private"), std::string::npos);
}

TEST_F(Tls, WrongHostName) {
  const Identity identity = make_identity("server", "DNS:other.test,IP:127.0.0.2", &authority_);
  LoopbackServer server(answering(identity));
  EXPECT_EQ(failure_of(request_to(server)).kind, FailureKind::kCertificate);
}

TEST_F(Tls, ExpiredCertificate) {
  const Identity identity = make_identity("server", "IP:127.0.0.1", &authority_, -3600);
  LoopbackServer server(answering(identity));
  EXPECT_EQ(failure_of(request_to(server)).kind, FailureKind::kCertificate);
}

TEST_F(Tls, OldVersionIsRefused) {
  if (!alerts_are_visible() && !received_bytes_are_counted()) {
    GTEST_SKIP() << "an alert cannot be told from a hang-up here, which is a reset";
  }
  LoopbackServer old(answering(good_, TLS1_1_VERSION));
  EXPECT_EQ(failure_of(request_to(old)).kind, FailureKind::kTls);
  LoopbackServer recent(answering(good_, TLS1_2_VERSION));
  EXPECT_EQ(perform(request_to(recent)).body, "secret");
}

TEST_F(Tls, PlainServerIsNotTls) {
  LoopbackServer server([](Connection& connection) {
    connection.read_bytes(1);
    connection.send("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
    connection.closed_within(testing::kPatience);
  });
  EXPECT_EQ(failure_of(request_to(server)).kind, FailureKind::kTls);
}

TEST_F(Tls, EndInTheHandshakeIsAReset) {
  LoopbackServer server([](Connection& connection) {
    if (connection.index() == 1) connection.read_bytes(1);
    if (connection.index() == 2) connection.read_bytes(200);
  });
  for (int round = 0; round < 3; ++round) {
    const auto failure = failure_of(request_to(server));
    EXPECT_EQ(failure.kind, FailureKind::kReset) << failure.message;
  }
}

TEST_F(Tls, ResetInTheHandshake) {
  LoopbackServer server([](Connection& connection) {
    connection.read_bytes(1);
    connection.reset();
  });
  EXPECT_EQ(failure_of(request_to(server)).kind, FailureKind::kReset);
}

TEST_F(Tls, EndBeforeTheAnswerIsAReset) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    for (const bool goodbye : {true, false}) {
      LoopbackServer server([&](Connection& connection) {
        TlsStream stream(connection, good_, version);
        stream.read_head();
        if (goodbye) stream.say_goodbye();
      });
      const auto failure = failure_of(request_to(server));
      EXPECT_EQ(failure.kind, FailureKind::kReset) << failure.message;
    }
  }
}

TEST_F(Tls, EndWithinTheBodyIsTruncation) {
  for (const bool goodbye : {true, false}) {
    LoopbackServer server([&](Connection& connection) {
      TlsStream stream(connection, good_);
      stream.read_head();
      stream.send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n123");
      if (goodbye) stream.say_goodbye();
    });
    const auto failure = failure_of(request_to(server));
    EXPECT_EQ(failure.kind, FailureKind::kTruncated) << failure.message;
  }
}

TEST_F(Tls, EndAfterAnInterimAnswerIsAReset) {
  for (const bool goodbye : {true, false}) {
    LoopbackServer server([&](Connection& connection) {
      TlsStream stream(connection, good_);
      stream.read_head();
      stream.send("HTTP/1.1 100 Continue\r\n\r\n");
      if (goodbye) stream.say_goodbye();
    });
    const auto failure = failure_of(request_to(server));
    EXPECT_EQ(failure.kind, FailureKind::kReset) << failure.message;
  }
}

TEST_F(Tls, BodyUpToTheEndOfTheConnection) {
  for (const bool goodbye : {true, false}) {
    LoopbackServer server([&](Connection& connection) {
      TlsStream stream(connection, good_);
      stream.read_head();
      stream.send("HTTP/1.0 200 OK\r\n\r\nall of it");
      if (goodbye) stream.say_goodbye();
    });
    EXPECT_EQ(perform(request_to(server)).body, "all of it");
  }
}

TEST_F(Tls, ResumedAtTheSecondConnectionOnly) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    const TlsIdentity identity(good_, version);
    std::vector<bool> resumed;
    LoopbackServer server([&](Connection& connection) {
      TlsStream stream(connection, identity);
      resumed.push_back(stream.resumed());
      stream.read_head();
      stream.send(answer_of(200, "secret", "Connection: close\r\n"));
      stream.say_goodbye();
    });
    for (int round = 0; round < 3; ++round) EXPECT_EQ(perform(request_to(server)).body, "secret");
    EXPECT_EQ(resumed, (std::vector<bool>{false, tls_is_shared(), tls_is_shared()}));
  }
}

TEST_F(Tls, IdleConnectionClosedIsReplaced) {
  for (const bool goodbye : {true, false}) {
    LoopbackServer server([&](Connection& connection) {
      TlsStream stream(connection, good_);
      stream.read_head();
      stream.send(answer_of(200, "secret"));
      if (goodbye) stream.say_goodbye();
    });
    for (int round = 0; round < 5; ++round) EXPECT_EQ(perform(request_to(server)).body, "secret");
    EXPECT_EQ(server.accepted(), 5);
  }
}

TEST_F(Tls, ConnectionThatIsNotKeptEndsWithItsAnswer) {
  std::promise<bool> ended;
  LoopbackServer server([&](Connection& connection) {
    TlsStream stream(connection, good_);
    stream.read_head();
    stream.send(answer_of(200, "secret", "Connection: close\r\n"));
    ended.set_value(connection.closed_within(testing::kPatience));
  });
  EXPECT_EQ(perform(request_to(server)).body, "secret");
  EXPECT_TRUE(ended.get_future().get());
}

TEST_F(Tls, RedirectToPlainIsNotFollowed) {
  LoopbackServer plain([](Connection& connection) { connection.closed_within(testing::kPatience); });
  LoopbackServer server([&](Connection& connection) {
    TlsStream stream(connection, good_);
    while (!stream.read_head().empty()) stream.send(answer_of(302, "", "Location: " + plain.url() + "\r\n"));
  });
  EXPECT_EQ(perform(request_to(server)).status, 302);
  EXPECT_EQ(plain.accepted(), 0);
}

TEST_F(Tls, ProxyIsAskedForATunnel) {
  testing::WireRequest asked;
  std::string inner;
  LoopbackServer proxy([&](Connection& connection) {
    connection.read_request(asked);
    connection.send("HTTP/1.1 200 Connected\r\nX-Proxy: 1\r\n\r\n");
    TlsStream stream(connection, good_);
    inner = stream.read_head();
    stream.send(answer_of(200, "secret"));
    connection.closed_within(testing::kPatience);
  });
  Request request = request_for("https://127.0.0.1:9/private");
  request.proxies.for_https = proxy.url();
  request.trust.ca_file = trusted_.file();
  request.headers = {{"Authorization", "Bearer t"}};
  const Response response = perform(request);
  EXPECT_EQ(response.body, "secret");
  EXPECT_EQ(testing::header_of(response, "X-Proxy"), "(absent)");
  EXPECT_EQ(asked.line(), "CONNECT 127.0.0.1:9 HTTP/1.1");
  EXPECT_EQ(asked.value("Authorization"), "(absent)");
  EXPECT_NE(inner.find("Authorization: Bearer t"), std::string::npos);
}

TEST_F(Tls, ProxyThatRefusesATunnel) {
  testing::AnsweringServer proxy(answer_of(407));
  Request request = request_for("https://127.0.0.1:9/private");
  request.proxies.for_https = proxy->url();
  const auto failure = failure_of(request);
  EXPECT_EQ(failure.kind, FailureKind::kProxyRefused);
  EXPECT_EQ(failure.message, "proxy " + proxy->peer() + " for 127.0.0.1:9 answered 407");
}

TEST_F(Tls, ForkedChildSaysNothingOnAConnection) {
  LoopbackServer server(answering(good_));
  EXPECT_EQ(perform(request_to(server)).body, "secret");
  const pid_t child = fork();
  if (child == 0) {
    alarm(10);
    _exit(perform(request_to(server)).body == "secret" ? 42 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 42);
  EXPECT_EQ(perform(request_to(server)).body, "secret");
  EXPECT_EQ(server.accepted(), 2);
}

TEST_F(Tls, AStoreThatCannotBeReadIsNamed) {
  LoopbackServer server(answering(good_));
  Request request = request_to(server);
  request.trust.ca_file = "/nowhere/roots.pem";
  const auto failure = failure_of(request);
  EXPECT_EQ(failure.kind, FailureKind::kTrustStore);
  EXPECT_EQ(failure.message,
            "trusted certificates cannot be read from /nowhere/roots.pem: No such file or directory");
}

}  // namespace
}  // namespace tessaline::auth::http
