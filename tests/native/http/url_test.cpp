#include "tessaline/auth/http/url.hpp"

#include <gtest/gtest.h>

#include <string>

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth::http {
namespace {

std::string refusal(const std::string& text) {
  try {
    return "accepted: " + parse_url(text).origin();
  } catch (const TransportFailure& failure) {
    EXPECT_EQ(failure.kind(), FailureKind::kInvalidRequest);
    return failure.what();
  }
}

std::string resolved(const std::string& base, const std::string& reference) {
  const auto url = resolve_reference(parse_url(base), reference);
  return url ? url->text : "(none)";
}

TEST(Url, NamesItsOriginWithDefaultPortAndLowerCase) {
  EXPECT_EQ(parse_url("HTTP://Example.TEST/Path").origin(), "http://example.test:80");
  EXPECT_EQ(parse_url("https://example.test").origin(), "https://example.test:443");
  EXPECT_EQ(parse_url("https://example.test:8443?q").origin(), "https://example.test:8443");
  EXPECT_EQ(parse_url("http://[::1]:81/").peer(), "[::1]:81");
}

TEST(Url, KeepsItsText) {
  const std::string text = "http://h/a/../b/%2e?x=../y";
  EXPECT_EQ(parse_url(text).text, text);
}

TEST(Url, RefusesWhatCannotBeSent) {
  for (const char* text : {"",
                           "/path",
                           "h/path",
                           "http:/h/",
                           "http:h",
                           "http:///p",
                           "http://",
                           "http://?q",
                           "ftp://h/",
                           "file:///etc/hosts",
                           "httpx://h/",
                           "http://h/a b",
                           "http://h/a\tb",
                           "http://h/\r\nX: y",
                           "http://h/\x7f",
                           "http://h/\xC3\xA4",
                           "http://\xC3\xA4/",
                           "http://%C3%A4/",
                           "http://%A2/",
                           "http://user@h/",
                           "http://user:password@h/",
                           "http://@h/",
                           "http://h:99999/",
                           "http://h:8x/",
                           "http://h:-1/",
                           "http://:80/",
                           "http://[::1/",
                           "http://a\\b/",
                           " http://h/"}) {
    EXPECT_EQ(refusal(text).substr(0, 4), "URL ") << text;
  }
  EXPECT_EQ(refusal(std::string("http://h/\0x", 11)).substr(0, 4), "URL ");
}

TEST(Url, RefusalRepeatsNothing) {
  for (const char* text :
       {"http://user:hidden@h/", "http://h/hidden path", "http://h:hidden/", "hidden://h/"}) {
    EXPECT_EQ(refusal(text).find("hidden"), std::string::npos) << refusal(text);
  }
}

TEST(Reference, ResolvesAgainstTheCurrentUrl) {
  const std::string base = "http://h:81/a/b/c?q=1#f";
  EXPECT_EQ(resolved(base, "/x?y"), "http://h:81/x?y");
  EXPECT_EQ(resolved(base, "x"), "http://h:81/a/b/x");
  EXPECT_EQ(resolved(base, "../x"), "http://h:81/a/x");
  EXPECT_EQ(resolved(base, "x/../../y"), "http://h:81/a/y");
  EXPECT_EQ(resolved(base, "?z=1"), "http://h:81/a/b/c?z=1");
  EXPECT_EQ(resolved(base, "#g"), "http://h:81/a/b/c?q=1#g");
  EXPECT_EQ(resolved(base, ""), base);
  EXPECT_EQ(resolved(base, "//other/x"), "http://other/x");
  EXPECT_EQ(resolved(base, "http:x"), "http://h:81/a/b/x");
  EXPECT_EQ(resolved("http://h", "x"), "http://h/x");
}

TEST(Reference, KeepsDotSegmentsOfAnAbsoluteUrl) {
  EXPECT_EQ(resolved("http://h/", "https://other/a/../b/%2e"), "https://other/a/../b/%2e");
}

TEST(Reference, EscapesWhatCannotBeSent) {
  EXPECT_EQ(resolved("http://h/", "/a b\xC3\xA4?c d"), "http://h/a%20b%C3%A4?c%20d");
  EXPECT_EQ(resolved("http://h/", "http://other/a b"), "http://other/a%20b");
  EXPECT_EQ(resolved("http://h/", "/a%20b"), "http://h/a%20b");
  EXPECT_EQ(resolved("http://h/", "/a\tb\x01"), "http://h/ab%01");
}

TEST(Reference, UnusableLeadsNowhere) {
  for (const char* reference :
       {"ftp://h/x", "mailto:x", "javascript:alert(1)", "http://user@other/", "http://", "http://h:x/",
        "https:/x", "https:x", "file:///x", "//", "http://%A2/", "//\xA2/"}) {
    EXPECT_EQ(resolved("http://h/a", reference), "(none)") << reference;
  }
}

}  // namespace
}  // namespace tessaline::auth::http
