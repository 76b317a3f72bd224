#include "tessaline/auth/http/proxy.hpp"

#include <gtest/gtest.h>

namespace tessaline::auth::http {
namespace {

bool exempt(const std::string& url, const std::string& hosts) {
  return is_exempt(parse_url(url), hosts);
}

std::string peer_of(const std::string& setting) {
  try {
    const auto proxy = proxy_for(parse_url("https://h/"), {.for_https = setting});
    return proxy ? proxy->scheme + " " + proxy->peer() : "(direct)";
  } catch (const TransportFailure& failure) {
    EXPECT_EQ(failure.kind(), FailureKind::kProxyRefused);
    EXPECT_TRUE(failure.detail().through_proxy);
    EXPECT_EQ(std::string(failure.what()).find("hidden"), std::string::npos);
    return failure.what();
  }
}

TEST(Proxy, IsChosenByTheSchemeOfTheUrl) {
  const ProxySettings settings{"http://plain:1", "http://secure:2", ""};
  EXPECT_EQ(proxy_for(parse_url("http://h/"), settings)->peer(), "plain:1");
  EXPECT_EQ(proxy_for(parse_url("https://h/"), settings)->peer(), "secure:2");
  EXPECT_EQ(proxy_for(parse_url("https://h/"), {"http://plain:1", "", ""}), std::nullopt);
  EXPECT_EQ(proxy_for(parse_url("https://h/"), {"", "http://secure:2", "h"}), std::nullopt);
}

TEST(Proxy, IsNamedWithoutItsCredentials) {
  EXPECT_EQ(peer_of("p:3128"), "http p:3128");
  EXPECT_EQ(peer_of("p"), "http p:1080");
  EXPECT_EQ(peer_of("HTTP://user:hidden@p:3128/"), "http p:3128");
  EXPECT_EQ(peer_of("https://p"), "https p:443");
  EXPECT_EQ(peer_of("socks5h://user:hidden@[::1]:9050"), "socks5h [::1]:9050");
  EXPECT_EQ(proxy_for(parse_url("https://h/"), {.for_https = "ftp.p:1"})->url, "http://ftp.p:1");
  EXPECT_EQ(peer_of("ftp.example.test:3128"), "http ftp.example.test:3128");
}

TEST(Proxy, ThatCannotBeUsedIsRefused) {
  EXPECT_EQ(peer_of("ftp://user:hidden@p:21"), "proxy p:21 has a scheme that is not supported");
  for (const char* setting :
       {"http://user:hidden@", "http://p:99999", "http://user:hidden@[p", "://", "http://user:hid/den@p",
        "http://hidden:1?x@p", "http://user:hid#den@p", "http://user:hidden%0d@p", "http://hid%0aden@p"}) {
    EXPECT_EQ(peer_of(setting), "proxy that the environment names cannot be understood") << setting;
  }
}

TEST(Proxy, ExemptNames) {
  for (const char* hosts :
       {"example.test", ".example.test", "EXAMPLE.test.", "x, example.test", "x example.test,,",
        "x\nexample.test\r", "x,*", "*", " * ", "www.example.test", "example.test:443"}) {
    EXPECT_TRUE(exempt("https://www.Example.test./", hosts)) << hosts;
  }
  for (const char* hosts :
       {"", ",", "ample.test", "w.example.test", "*.example.test", "example.test:80", "10.0.0.0/8", "x*"}) {
    EXPECT_FALSE(exempt("https://www.example.test/", hosts)) << hosts;
  }
  EXPECT_TRUE(exempt("http://localhost:8080/", "localhost:8080"));
}

TEST(Proxy, ExemptAddresses) {
  for (const char* hosts : {"127.0.0.1", "127.0.0.0/8", "127.0.0.1/32", "0.0.0.0/0", "::1, 127.0.0.0/31"}) {
    EXPECT_TRUE(exempt("http://127.0.0.1:1/", hosts)) << hosts;
  }
  for (const char* hosts : {"127.0.0.2", "127.0.0.2/31", "10.0.0.0/8", "127.0.0.0/33", "127.0.0.0/x", "0.1",
                            "127.0.0.1:2", "::/0"}) {
    EXPECT_FALSE(exempt("http://127.0.0.1:1/", hosts)) << hosts;
  }
  for (const char* hosts : {"::1", "[::1]", "::1/128", "::/0", "[::1]:81", "[0:0::1]:81"}) {
    EXPECT_TRUE(exempt("http://[::1]:81/", hosts)) << hosts;
  }
  for (const char* hosts : {"::2", "::2/127", "[::1]:82", "0.0.0.0/0"}) {
    EXPECT_FALSE(exempt("http://[::1]:81/", hosts)) << hosts;
  }
}

TEST(Proxy, AnswersOfItsOwn) {
  const auto own = [](int status, const Headers& headers) { return is_of_the_proxy({status, headers, ""}); };
  EXPECT_TRUE(own(407, {}));
  EXPECT_TRUE(own(403, {{"X-Squid-Error", "ERR_ACCESS_DENIED 0"}}));
  EXPECT_TRUE(own(502, {{"proxy-status", "p; error=connection_refused"}}));
  EXPECT_FALSE(own(403, {{"Via", "1.1 p"}, {"Proxy-Status", "p; received-status=403"}}));
}

}  // namespace
}  // namespace tessaline::auth::http
