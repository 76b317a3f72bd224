#include "tessaline/auth/http/redirect.hpp"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace tessaline::auth::http {
namespace {

const std::string kBody = "body";

Hop hop_to(const std::string& url, const std::string& method = "GET") {
  Hop hop;
  hop.url = parse_url(url);
  hop.method = method;
  return hop;
}

Response redirect_to(const std::string& location, int status = 302) {
  Response response;
  response.status = status;
  response.headers = {{"LOCATION", location}};
  return response;
}

std::optional<Hop> follow(const Hop& hop, const Response& response) {
  return RedirectTrail().next(hop, response);
}

TEST(Redirect, FollowsByStatusAndMethod) {
  const std::set<int> for_reading_and_posting = {301, 302, 303};
  const std::set<int> for_reading = {307, 308};
  for (int status = 200; status < 600; ++status) {
    for (const std::string method :
         {"GET", "HEAD", "POST", "PUT", "PATCH", "DELETE", "OPTIONS", "get", "BREW"}) {
      const bool reads = method == "GET" || method == "HEAD";
      const bool expected = (for_reading_and_posting.contains(status) && (reads || method == "POST")) ||
                            (for_reading.contains(status) && reads);
      EXPECT_EQ(follow(hop_to("http://h/", method), redirect_to("/x", status)).has_value(), expected)
          << status << ' ' << method;
    }
  }
}

TEST(Redirect, PostBecomesGetWithoutBody) {
  Hop hop = hop_to("http://h/", "POST");
  hop.body = &kBody;
  hop.headers = {{"content-TYPE", "t"}, {"X", "y"}, {"Content-Length", "4"}, {"Content-Language", "l"}};
  const auto next = follow(hop, redirect_to("/x"));
  ASSERT_TRUE(next);
  EXPECT_EQ(next->method, "GET");
  EXPECT_EQ(next->body, nullptr);
  EXPECT_EQ(next->headers, (Headers{{"X", "y"}, {"Content-Language", "l"}}));
}

TEST(Redirect, HeadStaysHead) {
  const auto next = follow(hop_to("http://h/", "HEAD"), redirect_to("/x", 303));
  ASSERT_TRUE(next);
  EXPECT_EQ(next->method, "HEAD");
}

TEST(Redirect, TakesLocationBeforeUri) {
  Response response;
  response.status = 302;
  EXPECT_FALSE(follow(hop_to("http://h/"), response));
  response.headers = {{"uri", "/u"}};
  EXPECT_EQ(follow(hop_to("http://h/"), response)->url.text, "http://h/u");
  response.headers.emplace_back("location", "/l");
  EXPECT_EQ(follow(hop_to("http://h/"), response)->url.text, "http://h/l");
}

TEST(Redirect, NeverGivesUpEncryption) {
  EXPECT_FALSE(follow(hop_to("https://h/"), redirect_to("http://h/")));
  EXPECT_TRUE(follow(hop_to("http://h/"), redirect_to("https://h/")));
  EXPECT_TRUE(follow(hop_to("https://h/"), redirect_to("//other/")));
}

TEST(Redirect, LeavesUnusableReferencesAlone) {
  for (const char* location : {"ftp://h/", "mailto:a", "http://user:password@h/", "http://", "http://h:x/"}) {
    EXPECT_FALSE(follow(hop_to("http://h/"), redirect_to(location))) << location;
  }
}

TEST(Redirect, KeepsPrivateHeadersWithinTheOriginOnly) {
  Hop hop = hop_to("http://h/");
  hop.headers = {
      {"Authorization", "a"}, {"cookie", "c"}, {"HOST", "v"}, {"Proxy-Authorization", "p"}, {"X", "y"}};
  for (const char* same : {"/x", "http://H:80/x", "//h/x"}) {
    EXPECT_EQ(follow(hop, redirect_to(same))->headers, hop.headers) << same;
  }
  for (const char* other : {"https://h/x", "http://h:81/x", "http://other/x", "//h.other/x"}) {
    EXPECT_EQ(follow(hop, redirect_to(other))->headers, (Headers{{"X", "y"}})) << other;
  }
}

TEST(Redirect, DroppedHeadersStayDropped) {
  Hop hop = hop_to("http://h/");
  hop.headers = {{"Authorization", "a"}};
  RedirectTrail trail;
  const auto away = trail.next(hop, redirect_to("http://other/"));
  const auto back = trail.next(*away, redirect_to("http://h/"));
  ASSERT_TRUE(back);
  EXPECT_TRUE(back->headers.empty());
}

TEST(Redirect, VisitsOneTargetFourTimes) {
  RedirectTrail trail;
  Hop hop = hop_to("http://h/loop");
  for (int visit = 1; visit <= 4; ++visit) {
    const auto next = trail.next(hop, redirect_to("/loop"));
    ASSERT_TRUE(next) << visit;
    hop = *next;
  }
  EXPECT_FALSE(trail.next(hop, redirect_to("/loop")));
}

TEST(Redirect, VisitsTenTargets) {
  RedirectTrail trail;
  Hop hop = hop_to("http://h/0");
  for (int visit = 1; visit <= 10; ++visit) {
    const auto next = trail.next(hop, redirect_to(std::string("/").append(std::to_string(visit))));
    ASSERT_TRUE(next) << visit;
    hop = *next;
  }
  EXPECT_FALSE(trail.next(hop, redirect_to("/11")));
  EXPECT_FALSE(trail.next(hop, redirect_to("/1")));
}

}  // namespace
}  // namespace tessaline::auth::http
