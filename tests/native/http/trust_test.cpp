#include "tessaline/auth/http/trust.hpp"

#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "tessaline/auth/http/limits.hpp"
#include "tls_server.hpp"

namespace tessaline::auth::http {
namespace {

using namespace std::chrono_literals;
using testing::Identity;
using testing::make_identity;
using testing::TrustDirectory;

class TrustTest : public ::testing::Test {
 protected:
  std::shared_ptr<const Trust> by_file() const { return Trust::in_force({trusted_.file(), ""}); }
  std::shared_ptr<const Trust> by_directory() const { return Trust::in_force({"", trusted_.path()}); }

  /// Waits until a change is visible in the file system's time stamps.
  static void settle() { std::this_thread::sleep_for(30ms); }

  static void write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

  /// Verifies as a handshake would.
  static int verify(const Trust& trust, X509* certificate) {
    const std::unique_ptr<X509_STORE_CTX, OpenSslFree<X509_STORE_CTX_free>> context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), trust.roots().store(), certificate, nullptr);
    X509_verify_cert(context.get());
    return X509_STORE_CTX_get_error(context.get());
  }

  std::string failure_of_file(const std::string& text) const {
    const std::string path = trusted_.path() + "/damaged.pem";
    write(path, text);
    std::string told = "(accepted)";
    try {
      Trust::in_force({path, ""});
    } catch (const TransportFailure& failure) {
      EXPECT_EQ(failure.kind(), FailureKind::kTrustStore);
      told = failure.what();
    }
    unlink(path.c_str());
    const std::string begin = "trusted certificates cannot be read from " + path + ": ";
    return told.starts_with(begin) ? told.substr(begin.size()) : told;
  }

  const Identity authority_ = make_identity("authority", "", nullptr);
  const Identity good_ = make_identity("server", "IP:127.0.0.1", &authority_);
  const TrustDirectory trusted_{authority_.certificate.get()};
};

TEST_F(TrustTest, IsOneForAllWhoAskForTheSame) {
  const auto first = by_file();
  settle();
  EXPECT_EQ(by_file(), first);
  EXPECT_NE(by_directory(), first);
  std::vector<std::thread> threads;
  for (int index = 0; index < 8; ++index) threads.emplace_back([&] { EXPECT_EQ(by_file(), first); });
  for (std::thread& thread : threads) thread.join();
}

TEST_F(TrustTest, VerifiesByFileAndByDirectory) {
  const Identity stranger = make_identity("stranger", "", nullptr);
  const Identity foreign = make_identity("foreign", "", &stranger);
  for (const auto& trust : {by_file(), by_directory()}) {
    for (int round = 0; round < 2; ++round) {
      EXPECT_EQ(verify(*trust, good_.certificate.get()), X509_V_OK);
      EXPECT_EQ(verify(*trust, foreign.certificate.get()), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
    }
  }
}

TEST_F(TrustTest, IsVerifiedWithByManyThreadsAtOnce) {
  for (const auto& trust : {by_file(), by_directory()}) {
    std::vector<std::thread> threads;
    for (int index = 0; index < 8; ++index) {
      threads.emplace_back([&] { EXPECT_EQ(verify(*trust, good_.certificate.get()), X509_V_OK); });
    }
    for (std::thread& thread : threads) thread.join();
  }
}

TEST_F(TrustTest, IsMadeAnewWhenTheFileChanges) {
  const auto before = by_file();
  settle();
  const Identity other = make_identity("authority", "", nullptr);
  FILE* output = fopen(trusted_.file().c_str(), "w");
  PEM_write_X509(output, other.certificate.get());
  fclose(output);
  const auto after = by_file();
  EXPECT_NE(after, before);
  EXPECT_NE(verify(*after, good_.certificate.get()), X509_V_OK);
  EXPECT_EQ(verify(*before, good_.certificate.get()), X509_V_OK);
}

TEST_F(TrustTest, IsTheSameForAFileThatWasJustWrittenAndNotChangedSince) {
  write(trusted_.path() + "/roots.pem", [&] {
    std::ifstream input(trusted_.file());
    return std::string(std::istreambuf_iterator<char>(input), {});
  }());
  const TrustStore places{trusted_.path() + "/roots.pem", ""};
  EXPECT_EQ(Trust::in_force(places), Trust::in_force(places));
  unlink(places.ca_file.c_str());
}

TEST_F(TrustTest, NoticesAChangeWithinOneTickOfTheClock) {
  std::ifstream input(trusted_.file());
  const std::string good(std::istreambuf_iterator<char>(input), {});
  std::string other = good;
  const auto place = other.find('\n') + 20;
  other[place] = other[place] == 'A' ? 'B' : 'A';
  const std::string path = trusted_.path() + "/roots.pem";
  for (int round = 0; round < 20; ++round) {
    write(path, good);
    const auto before = Trust::in_force({path, ""});
    write(path, other);
    EXPECT_NE(Trust::in_force({path, ""}), before);
  }
  unlink(path.c_str());
}

TEST_F(TrustTest, IsMadeAnewWhenTheDirectoryChanges) {
  settle();
  const auto before = by_directory();
  EXPECT_EQ(verify(*before, good_.certificate.get()), X509_V_OK);
  settle();
  EXPECT_EQ(by_directory(), before);
  write(trusted_.path() + "/new", "");
  EXPECT_NE(by_directory(), before);
  unlink((trusted_.path() + "/new").c_str());
}

TEST_F(TrustTest, IsMadeAnewWhenAFileOfTheDirectoryChangesThatWasUsed) {
  settle();
  const auto before = by_directory();
  EXPECT_EQ(verify(*before, good_.certificate.get()), X509_V_OK);
  for (const auto& entry : std::filesystem::directory_iterator(trusted_.path())) {
    if (entry.path().extension() == ".0") write(entry.path(), "withdrawn");
  }
  const auto after = by_directory();
  EXPECT_NE(after, before);
  EXPECT_NE(verify(*after, good_.certificate.get()), X509_V_OK);
}

TEST_F(TrustTest, FilesThatCannotBeReadSayWhy) {
  std::ifstream input(trusted_.file());
  const std::string good(std::istreambuf_iterator<char>(input), {});
  EXPECT_EQ(failure_of_file(""), "it is empty");
  EXPECT_EQ(failure_of_file("no certificate\n"), "there is no certificate in it");
  EXPECT_EQ(failure_of_file(good + good.substr(0, good.size() / 2)), "it is damaged after certificate 1");
  EXPECT_EQ(failure_of_file("-----BEGIN CERTIFICATE-----\n!\n-----END CERTIFICATE-----\n"),
            "it is damaged after certificate 0");
  const std::string other = "-----BEGIN CERTIFICATE-----\nMAUwAwIBAA==\n-----END CERTIFICATE-----\n";
  EXPECT_EQ(failure_of_file(good + other), "it is damaged after certificate 1");
  const std::string hollow = "-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n";
  EXPECT_EQ(failure_of_file(good + hollow + good), "it is damaged after certificate 1");
  EXPECT_EQ(failure_of_file("# comment\r\n" + good + "\nmore words\n" + good), "(accepted)");
}

TEST_F(TrustTest, SessionsAreGivenOutOnceAndBounded) {
  TlsSessions sessions;
  const std::time_t now = std::time(nullptr);
  const auto fresh = [] {
    TlsSession session(SSL_SESSION_new());
    SSL_SESSION_set_protocol_version(session.get(), TLS1_3_VERSION);
    const unsigned char id[] = {1};
    SSL_SESSION_set1_id(session.get(), id, sizeof id);
    return session;
  };
  for (std::size_t index = 0; index < 2 * kMostSessionsOfOnePeer; ++index) sessions.keep("one", fresh(), now);
  for (std::size_t index = 0; index < kMostSessionsOfOnePeer; ++index)
    EXPECT_NE(sessions.take("one").session, nullptr);
  EXPECT_EQ(sessions.take("one").session, nullptr);
  EXPECT_EQ(sessions.take("other").session, nullptr);
  sessions.keep("old", fresh(), now);
  for (std::size_t index = 0; index < kMostTlsPeers; ++index)
    sessions.keep(std::to_string(index), fresh(), now);
  EXPECT_EQ(sessions.take("old").session, nullptr);
  EXPECT_NE(sessions.take("0").session, nullptr);
  // However young the session itself is.
  sessions.keep("late", fresh(), now - kLongestResumableSeconds);
  EXPECT_EQ(sessions.take("late").session, nullptr);
}

// OpenSSL invalidates the session that a connection was resumed from if that ends without close_notify.
TEST_F(TrustTest, SessionsOfTls12SurviveTheConnectionsThatResumeThem) {
  const std::unique_ptr<SSL_CTX, OpenSslFree<SSL_CTX_free>> context(SSL_CTX_new(TLS_client_method()));
  TlsSession session(SSL_SESSION_new());
  SSL_SESSION_set_protocol_version(session.get(), TLS1_2_VERSION);
  const unsigned char id[] = {1};
  SSL_SESSION_set1_id(session.get(), id, sizeof id);
  TlsSessions sessions;
  sessions.keep("one", std::move(session), std::time(nullptr));
  for (int round = 0; round < 3; ++round) {
    const TlsSession taken = sessions.take("one").session;
    ASSERT_NE(taken, nullptr);
    SSL_CTX_remove_session(context.get(), taken.get());
    EXPECT_EQ(SSL_SESSION_is_resumable(taken.get()), 0);
  }
}

}  // namespace
}  // namespace tessaline::auth::http
