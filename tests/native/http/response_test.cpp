#include "loopback_server.hpp"

namespace tessaline::auth::http {
namespace {

using testing::answer_of;
using testing::AnsweringServer;
using testing::Connection;
using testing::failure_of;
using testing::header_of;
using testing::LoopbackServer;
using testing::request_for;
using testing::WireRequest;

Response answered(const std::string& answer, const std::string& method = "GET") {
  AnsweringServer server(answer);
  return perform(request_for(server->url(), method));
}

/// The response, then the end of the connection.
testing::Caught failure_after(const std::string& answer, const std::string& method = "GET") {
  LoopbackServer server([&](Connection& connection) {
    WireRequest wire;
    if (connection.read_request(wire)) connection.send(answer);
  });
  return failure_of(request_for(server.url("/private?private"), method));
}

FailureKind kind_after(const std::string& answer, const std::string& method = "GET") {
  const auto failure = failure_after(answer, method);
  EXPECT_EQ(failure.message.find("private"), std::string::npos) << failure.message;
  EXPECT_NE(failure.message.find("127.0.0.1:"), std::string::npos) << failure.message;
  return failure.kind;
}

TEST(Response, EveryStatusIsAResult) {
  AnsweringServer server([](const WireRequest& wire) {
    const int status = std::stoi(wire.line().substr(5));
    return status == 204 || status == 304 ? "HTTP/1.1 " + std::to_string(status) + " No\r\nX-Name: v\r\n\r\n"
                                          : answer_of(status, "text", "X-Name: v\r\n");
  });
  for (int status = 200; status < 600; ++status) {
    const Response response = perform(request_for(server->url("/" + std::to_string(status))));
    EXPECT_EQ(response.status, status);
    EXPECT_EQ(response.body, status == 204 || status == 304 ? "" : "text") << status;
    EXPECT_EQ(header_of(response, "X-Name"), "v") << status;
  }
  EXPECT_EQ(server->accepted(), 1);
}

TEST(Response, HeadHasNoBody) {
  AnsweringServer server(std::string("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n"));
  for (int round = 0; round < 3; ++round) {
    const Response response = perform(request_for(server->url(), "HEAD"));
    EXPECT_EQ(response.body, "");
    EXPECT_EQ(header_of(response, "Content-Length"), "1000");
  }
  EXPECT_EQ(server->accepted(), 1);
}

TEST(Response, HeadWithBodyStillHasNone) {
  AnsweringServer server(std::string("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n"));
  Request request = request_for(server->url(), "HEAD");
  request.body = "body";
  const Response response = perform(request);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, "");
  EXPECT_EQ(header_of(response, "Content-Length"), "1000");
  EXPECT_EQ(server.requests().back().body, "body");
}

TEST(Response, ChunkedBody) {
  const Response response = answered(
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
      "3\r\nabc\r\nA;x=y\r\n0123456789\r\n0\r\nX-Trailer: t\r\n\r\n");
  EXPECT_EQ(response.body, "abc0123456789");
  EXPECT_EQ(header_of(response, "X-Trailer"), "(absent)");
}

TEST(Response, BodyUpToTheEndOfTheConnection) {
  LoopbackServer server([](Connection& connection) {
    WireRequest wire;
    if (connection.read_request(wire)) connection.send("HTTP/1.0 200 OK\r\n\r\nall of it");
  });
  EXPECT_EQ(perform(request_for(server.url())).body, "all of it");
}

TEST(Response, BodyComesRaw) {
  const std::string packed("\x1F\x8B\x08\0raw", 7);
  EXPECT_EQ(answered(answer_of(200, packed, "Content-Encoding: gzip\r\n")).body, packed);
}

TEST(Response, LargeBody) {
  const std::string body(5'000'000, 'x');
  EXPECT_EQ(answered(answer_of(200, body)).body, body);
}

TEST(Response, InterimAnswersLeaveNoTrace) {
  const Response response =
      answered("HTTP/1.1 100 Continue\r\nX-A: 1\r\n\r\nHTTP/1.1 103 Early Hints\r\nX-B: 2\r\n\r\n" +
               answer_of(200, "text", "X-C: 3\r\n"));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.headers, (Headers{{"X-C", "3"}, {"Content-Length", "4"}}));
}

TEST(Response, RepeatedAndFoldedHeaders) {
  const Response response =
      answered(answer_of(200, "", "Set-Cookie: a\r\nset-cookie: b\r\nX-Fold: one\r\n  two\r\n\tthree\r\n"));
  EXPECT_EQ(response.headers,
            (Headers{{"Set-Cookie", "a"}, {"X-Fold", "one two three"}, {"Content-Length", "0"}}));
}

TEST(Response, ManyHeadersAreReadQuickly) {
  std::string fields;
  for (int index = 0; index < 3'900; ++index)
    fields.append("h").append(std::to_string(index)).append(": v\r\n");
  EXPECT_EQ(answered(answer_of(200, "", fields)).headers.size(), 3'901U);
}

TEST(Response, CookiesAreNotKept) {
  AnsweringServer server(answer_of(200, "", "Set-Cookie: a=b\r\n"));
  perform(request_for(server->url()));
  perform(request_for(server->url()));
  EXPECT_EQ(server.requests().back().value("Cookie"), "(absent)");
}

TEST(Response, EndedTooEarly) {
  EXPECT_EQ(kind_after(""), FailureKind::kReset);
  EXPECT_EQ(kind_after("HTTP/1.1 2"), FailureKind::kReset);
  EXPECT_EQ(kind_after("HTTP/1.1 200 OK\r\n"), FailureKind::kReset);
  EXPECT_EQ(kind_after("HTTP/1.1 200 OK\r\nX: y\r\nConte"), FailureKind::kReset);
  EXPECT_EQ(kind_after("HTTP/1.1 100 Continue\r\n\r\n"), FailureKind::kReset);
  EXPECT_EQ(kind_after("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345"), FailureKind::kTruncated);
  EXPECT_EQ(kind_after("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n"), FailureKind::kTruncated);
  EXPECT_EQ(kind_after("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nab"),
            FailureKind::kTruncated);
  EXPECT_EQ(kind_after("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n"),
            FailureKind::kTruncated);
  EXPECT_EQ(kind_after("", "POST"), FailureKind::kReset);
}

TEST(Response, NotHttp) {
  for (const std::string& garbage :
       {std::string("garbage\r\n\r\n"), std::string("\0\1\2\3", 4), std::string("\r\n\r\n"),
        std::string("SSH-2.0-OpenSSH_9.2\r\n"), std::string("HTTP/1.1 abc\r\n\r\n"),
        std::string("HTTP/1.1 2000 x\r\n\r\n"), std::string("HTTP/2 200 OK\r\n\r\n"),
        std::string("HTTP/3.0 200 OK\r\n\r\n"), std::string("HTTP/1.1 101 Switching Protocols\r\n\r\n"),
        std::string("HTTP/1.1 200 OK\r\nno colon\r\n\r\n"),
        std::string("HTTP/1.1 200 OK\r\n folded: first\r\n\r\n"),
        std::string("HTTP/1.1 200 OK\r\nX: a\0b\r\n\r\n", 27),
        std::string("HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n"),
        std::string("HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n"),
        std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n\r\n"),
        std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nabXX\r\n")}) {
    EXPECT_EQ(kind_after(garbage), FailureKind::kMalformedResponse) << garbage;
  }
}

TEST(Response, TrailersBeyondBounds) {
  std::string answer = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nok\r\n0\r\n";
  for (int index = 0; index < 5'000; ++index)
    answer.append("t").append(std::to_string(index)).append(": trailer\r\n");
  EXPECT_EQ(kind_after(answer + "\r\n"), FailureKind::kMalformedResponse);
}

TEST(Response, BodyBeyondBounds) {
  const std::string chunk(std::size_t{1} << 20U, 'b');
  LoopbackServer server([&](Connection& connection) {
    WireRequest wire;
    if (!connection.read_request(wire)) return;
    connection.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
    for (int index = 0; index < 80; ++index) {
      if (!connection.send("100000\r\n" + chunk + "\r\n")) return;
    }
  });
  const auto failure = failure_of(request_for(server.url("/private")));
  EXPECT_EQ(failure.kind, FailureKind::kMalformedResponse);
  EXPECT_EQ(failure.message, "answer of " + server.peer() + " is too large: more than 64 MiB");
}

TEST(Response, LengthsThatSayNothing) {
  for (const char* lengths :
       {"Content-Length: 99999999999999999999\r\n", "Content-Length: five\r\n", "Content-Length: -1\r\n",
        "Content-Length: \r\n", "Content-Length: 5\r\nContent-Length: 2\r\n"}) {
    EXPECT_EQ(kind_after(std::string("HTTP/1.1 200 OK\r\n") + lengths + "\r\nhello"),
              FailureKind::kMalformedResponse)
        << lengths;
  }
  EXPECT_EQ(answered("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Length: 5\r\n\r\nhello").body, "hello");
}

TEST(Response, HeadBeyondBounds) {
  EXPECT_EQ(kind_after("HTTP/1.1 200 OK\r\nX: " + std::string(150'000, 'a') + "\r\n\r\n"),
            FailureKind::kMalformedResponse);
  EXPECT_EQ(kind_after("HTTP/1.1 200 " + std::string(150'000, 'a') + "\r\n\r\n"),
            FailureKind::kMalformedResponse);
  std::string wide = "HTTP/1.1 200 OK\r\n";
  for (int index = 0; index < 40; ++index)
    wide.append("h").append(std::to_string(index)).append(": ").append(10'000, 'v').append("\r\n");
  EXPECT_EQ(kind_after(wide + "\r\n"), FailureKind::kMalformedResponse);
  std::string many = "HTTP/1.1 200 OK\r\n";
  for (int index = 0; index < 50'000; ++index)
    many.append("h").append(std::to_string(index)).append(": v\r\n");
  EXPECT_EQ(kind_after(many + "\r\n"), FailureKind::kMalformedResponse);
}

}  // namespace
}  // namespace tessaline::auth::http
