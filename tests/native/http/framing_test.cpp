#include "loopback_server.hpp"

namespace tessaline::auth::http {
namespace {

using testing::answer_of;
using testing::AnsweringServer;
using testing::request_for;
using testing::WireRequest;

/// The request as the server receives it.
WireRequest seen(Request request, const std::string& path = "/") {
  AnsweringServer server([](const WireRequest& wire) {
    return wire.line().starts_with("HEAD ") ? "HTTP/1.1 200 OK\r\n\r\n" : answer_of(200);
  });
  request.url = server->url(path);
  request.timeout = std::chrono::seconds(5);
  EXPECT_EQ(perform(request).status, 200);
  const auto requests = server.requests();
  EXPECT_EQ(requests.size(), 1U);
  return requests.empty() ? WireRequest() : requests.front();
}

TEST(Framing, MethodsWithoutBody) {
  for (const char* method : {"GET", "HEAD", "DELETE", "OPTIONS", "BREW", "get"}) {
    const WireRequest wire = seen(request_for("", method));
    EXPECT_EQ(wire.line(), std::string(method) + " / HTTP/1.1");
    EXPECT_EQ(wire.value("Content-Length"), "(absent)") << method;
  }
  for (const char* method : {"POST", "PUT", "PATCH"}) {
    const WireRequest wire = seen(request_for("", method));
    EXPECT_EQ(wire.line(), std::string(method) + " / HTTP/1.1");
    EXPECT_EQ(wire.values("Content-Length"), std::vector<std::string>{"0"}) << method;
  }
}

TEST(Framing, AnyMethodWithBody) {
  const std::string body("b\0dy\r\n\xFF", 7);
  for (const char* method : {"GET", "HEAD", "POST", "PUT", "PATCH", "DELETE", "OPTIONS", "BREW"}) {
    Request request = request_for("", method);
    request.body = body;
    const WireRequest wire = seen(request);
    EXPECT_EQ(wire.line(), std::string(method) + " / HTTP/1.1");
    EXPECT_EQ(wire.values("Content-Length"), std::vector<std::string>{"7"}) << method;
    EXPECT_EQ(wire.body, body) << method;
    EXPECT_EQ(wire.value("Content-Type"), "(absent)") << method;
    EXPECT_EQ(wire.value("Transfer-Encoding"), "(absent)") << method;
  }
}

TEST(Framing, EmptyBodyIsABody) {
  Request request = request_for("", "GET");
  request.body = "";
  EXPECT_EQ(seen(request).value("Content-Length"), "0");
}

TEST(Framing, LargeBodyIsSentWithoutAsking) {
  Request request = request_for("", "POST");
  request.body = std::string(3'000'000, 'x');
  const WireRequest wire = seen(request);
  EXPECT_EQ(wire.body, request.body);
  EXPECT_EQ(wire.value("Expect"), "(absent)");
}

TEST(Framing, CallersFramingIsIgnored) {
  Request request = request_for("", "POST");
  request.headers = {{"content-length", "999"}, {"Transfer-Encoding", "chunked"}};
  request.body = "body";
  const WireRequest wire = seen(request);
  EXPECT_EQ(wire.values("Content-Length"), std::vector<std::string>{"4"});
  EXPECT_EQ(wire.value("Transfer-Encoding"), "(absent)");
  EXPECT_EQ(wire.body, "body");
}

TEST(Framing, HeadersAreSentAsGiven) {
  Request request = request_for("", "POST");
  request.headers = {{"X-Empty", ""},   {"x-BLANK", " \t"},  {"X-Latin", "\xE4\xFF"},
                     {"X-Twice", "1"},  {"X-Twice", "2"},    {"Content-Type", "application/json"},
                     {"Cookie", "a=b"}, {"Expect", ""},      {"Authorization", "Bearer t"},
                     {"Accept", "x/y"}, {"Host", "virtual"}, {"Accept-Encoding", "br"}};
  const WireRequest wire = seen(request);
  EXPECT_EQ(wire.values("X-Empty"), std::vector<std::string>{""});
  EXPECT_NE(wire.head.find("\r\nx-BLANK:"), std::string::npos);
  EXPECT_EQ(wire.value("X-Latin"), "\xE4\xFF");
  EXPECT_EQ(wire.values("X-Twice"), (std::vector<std::string>{"1", "2"}));
  for (const auto& [name, value] : request.headers) {
    if (name[0] == 'X' || name[0] == 'x') continue;
    EXPECT_EQ(wire.values(name), std::vector<std::string>{value}) << name;
  }
}

TEST(Framing, OwnHeadersAreFew) {
  const WireRequest wire = seen(request_for(""));
  EXPECT_EQ(wire.values("User-Agent"), std::vector<std::string>{"tessaline/" TESSALINE_VERSION});
  for (const char* name :
       {"Content-Type", "Accept-Encoding", "Cookie", "Expect", "Connection", "Upgrade", "TE"}) {
    EXPECT_EQ(wire.value(name), "(absent)") << name;
  }
}

TEST(Framing, CallersAgentReplacesOurs) {
  Request request = request_for("");
  request.headers = {{"user-AGENT", "host/1"}};
  EXPECT_EQ(seen(request).values("User-Agent"), std::vector<std::string>{"host/1"});
}

TEST(Framing, CallersExpectIsKept) {
  testing::LoopbackServer server([](testing::Connection& connection) {
    // The body is sent only after 100 Continue, so the head is read alone.
    if (!connection.read_bytes(1)) return;
    connection.send("HTTP/1.1 100 Continue\r\nX-Interim: 1\r\n\r\n");
    WireRequest wire;
    if (!connection.read_request(wire)) return;
    connection.send(answer_of(200, wire.value("Expect") + wire.body));
  });
  Request request = request_for(server.url(), "POST");
  request.headers = {{"Expect", "100-continue"}};
  request.body = "body";
  const Response response = perform(request);
  EXPECT_EQ(response.body, "100-continuebody");
  EXPECT_EQ(testing::header_of(response, "X-Interim"), "(absent)");
}

TEST(Framing, PathGoesOutAsItIs) {
  for (const char* path : {"/a/../b/%2e", "/./x//y/..", "/{a}|b^`\"<>\\", "/%zz%0", "/?a=../b&c={d}",
                           "/a;b=c?", "/a;b=c", "/%7Eto/%2e", "/%7eto/%2E"}) {
    EXPECT_EQ(seen(request_for(""), path).line(), "GET " + std::string(path) + " HTTP/1.1");
  }
  EXPECT_EQ(seen(request_for(""), "").line(), "GET / HTTP/1.1");
  EXPECT_EQ(seen(request_for(""), "?q").line(), "GET /?q HTTP/1.1");
  EXPECT_EQ(seen(request_for(""), "/p#fragment").line(), "GET /p HTTP/1.1");
}

TEST(Framing, AProxyIsAskedForTheWholeUrl) {
  AnsweringServer proxy(answer_of(200, "proxied"));
  Request request = request_for("http://somewhere.invalid/%7Eto/%2e;b=c?q#f");
  request.proxies.for_http = proxy->url();
  EXPECT_EQ(perform(request).body, "proxied");
  EXPECT_EQ(proxy.requests().front().line(), "GET http://somewhere.invalid/%7Eto/%2e;b=c?q HTTP/1.1");
}

}  // namespace
}  // namespace tessaline::auth::http
