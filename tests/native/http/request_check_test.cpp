#include "tessaline/auth/http/request_check.hpp"

#include "loopback_server.hpp"

namespace tessaline::auth::http {
namespace {

using testing::AnsweringServer;
using testing::failure_of;
using testing::request_for;

TEST(RequestCheck, RefusesMethodsThatAreNoTokens) {
  for (const char* method : {"", "GET ", "GE T", "GET\r\nX: y", "G\xC3\x84T", "GET/"}) {
    EXPECT_EQ(failure_of(request_for("http://h/", method)).kind, FailureKind::kInvalidRequest) << method;
  }
}

TEST(RequestCheck, RefusesHeaderNamesThatAreNoTokens) {
  for (const char* name : {"", "X Y", "X:", "X\r\nY", "\xC3\xA4", "X\t"}) {
    Request request = request_for("http://h/");
    request.headers = {{name, "value"}};
    EXPECT_EQ(failure_of(request).kind, FailureKind::kInvalidRequest) << name;
  }
}

TEST(RequestCheck, RefusesHeaderValuesThatEndTheLine) {
  for (const std::string& value :
       {std::string("a\r\nX: y"), std::string("a\n"), std::string("\r"), std::string("a\0b", 3)}) {
    Request request = request_for("http://h/");
    request.headers = {{"X-Name", value}};
    const auto failure = failure_of(request);
    EXPECT_EQ(failure.kind, FailureKind::kInvalidRequest);
    EXPECT_EQ(failure.message, "value of header X-Name holds CR, LF or NUL");
  }
}

TEST(RequestCheck, ConnectsToNobodyForARefusedRequest) {
  AnsweringServer server(testing::answer_of(200));
  Request injected = request_for(server->url());
  injected.headers = {{"X", "a\r\nAuthorization: b"}};
  EXPECT_EQ(failure_of(injected).kind, FailureKind::kInvalidRequest);
  EXPECT_EQ(failure_of(request_for(server->url("/ "))).kind, FailureKind::kInvalidRequest);
  EXPECT_EQ(failure_of(request_for(server->url(), "GET /x")).kind, FailureKind::kInvalidRequest);
  EXPECT_EQ(perform(request_for(server->url())).status, 200);
  EXPECT_EQ(server->accepted(), 1);
  EXPECT_EQ(server.requests().size(), 1U);
}

}  // namespace
}  // namespace tessaline::auth::http
