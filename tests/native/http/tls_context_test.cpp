#include "tessaline/auth/http/tls_context.hpp"

#include "tls_server.hpp"

namespace tessaline::auth::http {
namespace {

using testing::FreeWith;

/// What is observed of a handshake with a server that sends this and closes the connection.
TlsSight sight_of(const std::string& said) {
  const auto authority = testing::make_identity("authority", "", nullptr);
  const testing::TrustDirectory trusted(authority.certificate.get());
  TlsWatch watch;
  const std::unique_ptr<SSL_CTX, FreeWith<SSL_CTX_free>> context(SSL_CTX_new(TLS_client_method()));
  bind_context(context.get(), Trust::in_force({trusted.file(), ""}), "server", watch);
  const std::unique_ptr<SSL, FreeWith<SSL_free>> connection(SSL_new(context.get()));
  BIO* const incoming = BIO_new(BIO_s_mem());
  BIO_set_mem_eof_return(incoming, 0);
  BIO_write(incoming, said.data(), static_cast<int>(said.size()));
  SSL_set_bio(connection.get(), incoming, BIO_new(BIO_s_mem()));
  ERR_clear_error();
  EXPECT_LE(SSL_connect(connection.get()), 0);
  ERR_clear_error();
  return watch.sight;
}

// libcurl calls this with some versions only.
TEST(TlsContext, AnAlertThatAnswersTheEndTellsOfNoFault) {
  for (const std::string& said : {std::string(), std::string("\x16\x03\x03\x00\x7a", 5)}) {
    const TlsSight sight = sight_of(said);
    EXPECT_TRUE(sight.started);
    EXPECT_EQ(sight.fatal_alert, -1);
    EXPECT_TRUE(sight.hung_up());
  }
}

TEST(TlsContext, AnAlertThatAnswersAWrongMessageTellsOfAFault) {
  const TlsSight sight = sight_of(std::string("\x16\x03\x03\x00\x04\x0b\x00\x00\x00", 9));
  EXPECT_EQ(sight.fatal_alert, SSL_AD_UNEXPECTED_MESSAGE);
  EXPECT_FALSE(sight.hung_up());
}

TEST(TlsContext, AnAlertOfThePeerTellsOfAFault) {
  const TlsSight sight = sight_of(std::string("\x15\x03\x03\x00\x02\x02\x28", 7));
  EXPECT_EQ(sight.fatal_alert, SSL_AD_HANDSHAKE_FAILURE);
  EXPECT_EQ(sight.reason(), "SSLV3_ALERT_HANDSHAKE_FAILURE");
  EXPECT_FALSE(sight.hung_up());
}

}  // namespace
}  // namespace tessaline::auth::http
