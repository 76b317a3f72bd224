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
  EXPECT_EQ(parse_url("http://[fe80::1%25eth0]:81/").peer(), "[fe80::1%eth0]:81");
}

TEST(Url, KeepsItsText) {
  const std::string text = "http://h/a/../b/%2e?x=../y";
  EXPECT_EQ(parse_url(text).text, text);
}

TEST(Url, TargetIsWhatWasGiven) {
  const std::pair<const char*, const char*> cases[] = {
      {"http://h", "/"},
      {"http://h?q", "/?q"},
      {"http://h#f", "/"},
      {"http://h/?", "/?"},
      {"http://h/a;b=c", "/a;b=c"},
      {"http://h/%7Eto/%2e#f?x", "/%7Eto/%2e"},
      {"HTTP://H:1/X", "/X"},
      {"http://[::1]:81/a/../b", "/a/../b"},
  };
  for (const auto& [text, target] : cases) EXPECT_EQ(parse_url(text).target(), target) << text;
  EXPECT_EQ(parse_url("HTTP://H:80/x").root(), "http://H:80");
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
  EXPECT_EQ(resolved(base, "/%7Eto/%2e;x?y=%2f"), "http://h:81/%7Eto/%2e;x?y=%2f");
  EXPECT_EQ(resolved("http://h?a/b", "x"), "http://h/x");
}

// RFC 3986, section 5.4, with the base of its examples.
TEST(Reference, ResolvesTheExamplesOfTheStandard) {
  const std::pair<const char*, const char*> cases[] = {
      {"g", "/b/c/g"},
      {"./g", "/b/c/g"},
      {"g/", "/b/c/g/"},
      {"/g", "/g"},
      {"?y", "/b/c/d;p?y"},
      {"g?y", "/b/c/g?y"},
      {";x", "/b/c/;x"},
      {"g;x?y#s", "/b/c/g;x?y#s"},
      {".", "/b/c/"},
      {"./", "/b/c/"},
      {"..", "/b/"},
      {"../", "/b/"},
      {"../g", "/b/g"},
      {"../..", "/"},
      {"../../", "/"},
      {"../../g", "/g"},
      {"../../../g", "/g"},
      {"/./g", "/g"},
      {"/../g", "/g"},
      {"g.", "/b/c/g."},
      {".g", "/b/c/.g"},
      {"g..", "/b/c/g.."},
      {"..g", "/b/c/..g"},
      {"./../g", "/b/g"},
      {"./g/.", "/b/c/g/"},
      {"g/./h", "/b/c/g/h"},
      {"g/../h", "/b/c/h"},
      {"g;x=1/./y", "/b/c/g;x=1/y"},
      {"g;x=1/../y", "/b/c/y"},
      {"g?y/./x", "/b/c/g?y/./x"},
      {"g#s/../x", "/b/c/g#s/../x"},
  };
  for (const auto& [reference, path] : cases) {
    EXPECT_EQ(resolved("http://a/b/c/d;p?q", reference), std::string("http://a") + path) << reference;
  }
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
