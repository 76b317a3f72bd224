#include "tessaline/auth/transport/trust_places.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace tessaline::auth {
namespace {

namespace fs = std::filesystem;

class TrustPlaces : public ::testing::Test {
 protected:
  TrustPlaces() {
    std::string name = (fs::temp_directory_path() / "trust_places_XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::bad_alloc();
    root_ = name;
  }
  ~TrustPlaces() override { fs::remove_all(root_); }

  std::string at(const std::string& place) const { return root_ + place; }

  void put(const std::string& place, const std::string& content = "certificates") const {
    fs::create_directories(fs::path(at(place)).parent_path());
    std::ofstream(at(place)) << content;
  }

  std::string file() const { return find_system_trust_store(root_).ca_file; }
  std::string directory() const { return find_system_trust_store(root_).ca_directory; }

  std::string root_;
};

TEST_F(TrustPlaces, AreEmptyWhereASystemHasNone) {
  EXPECT_EQ(file(), "");
  EXPECT_EQ(directory(), "");
}

TEST_F(TrustPlaces, AreThoseOfTheLargeDistributions) {
  for (const char* place :
       {"/etc/ssl/cert.pem", "/etc/ssl/ca-bundle.pem", "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",
        "/etc/pki/tls/certs/ca-bundle.crt", "/etc/ssl/certs/ca-certificates.crt"}) {
    put(place);
    EXPECT_EQ(file(), at(place)) << "beside the ones before it";
    EXPECT_EQ(directory(), "");
  }
}

TEST_F(TrustPlaces, AreLinksToo) {
  put("/etc/pki/ca-trust/bundle.pem");
  fs::create_directories(at("/etc/ssl"));
  fs::create_symlink(at("/etc/pki/ca-trust/bundle.pem"), at("/etc/ssl/cert.pem"));
  EXPECT_EQ(file(), at("/etc/ssl/cert.pem"));
}

TEST_F(TrustPlaces, AreNotTakenWhenThereIsNothingInThem) {
  put("/etc/ssl/certs/ca-certificates.crt", "");
  fs::create_directories(at("/etc/pki/tls/certs/ca-bundle.crt"));
  EXPECT_EQ(file(), "");
  put("/etc/ssl/cert.pem");
  EXPECT_EQ(file(), at("/etc/ssl/cert.pem"));
}

TEST_F(TrustPlaces, AreNotTakenWhenTheyCannotBeRead) {
  if (geteuid() == 0) GTEST_SKIP() << "everything can be read";
  put("/etc/ssl/certs/ca-certificates.crt");
  fs::permissions(at("/etc/ssl/certs/ca-certificates.crt"), fs::perms::none);
  put("/etc/ssl/cert.pem");
  EXPECT_EQ(file(), at("/etc/ssl/cert.pem"));
}

TEST_F(TrustPlaces, MayBeADirectoryOfCertificatesByHash) {
  put("/etc/pki/tls/certs/0a1b2c3d.0");
  EXPECT_EQ(directory(), at("/etc/pki/tls/certs"));
  put("/etc/ssl/certs/ffffffff.12");
  EXPECT_EQ(directory(), at("/etc/ssl/certs"));
  EXPECT_EQ(file(), "");
}

TEST_F(TrustPlaces, ADirectoryWithoutHashesHoldsNone) {
  for (const char* name : {"authority.pem", "0a1b2c3d", "0a1b2c3d.", "0a1b2c3d.r0", "0A1B2C3D.0",
                           "0a1b2c3.00", "0a1b2c3d0.0", "0a1b2c3g.0"}) {
    put(std::string("/certs/") + name);
    EXPECT_FALSE(holds_certificates(at("/certs"))) << name;
  }
  put("/certs/0a1b2c3d.0");
  EXPECT_TRUE(holds_certificates(at("/certs")));
  EXPECT_FALSE(holds_certificates(at("/certs/0a1b2c3d.0")));
  EXPECT_FALSE(holds_certificates(at("/nowhere")));
}

}  // namespace
}  // namespace tessaline::auth
