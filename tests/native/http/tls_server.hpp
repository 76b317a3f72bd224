#pragma once

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <pthread.h>
#include <signal.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include "loopback_server.hpp"

namespace tessaline::auth::http::testing {

template <auto kFree>
struct FreeWith {
  template <typename Object>
  void operator()(Object* object) const {
    kFree(object);
  }
};

using Key = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, FreeWith<X509_free>>;

struct Identity {
  Key key;
  Certificate certificate;
};

inline void add_extension(X509* certificate, X509* issuer, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
  if (extension == nullptr) throw std::runtime_error("no extension");
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

/// Valid for a day. Without an issuer: a self-signed CA. `names` as in "IP:127.0.0.1".
inline Identity make_identity(const std::string& subject, const std::string& names, const Identity* issuer,
                              long valid_seconds = 86400) {
  Identity identity{Key(EVP_EC_gen("P-256")), Certificate(X509_new())};
  X509* certificate = identity.certificate.get();
  X509_set_version(certificate, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), issuer == nullptr ? 1 : 2);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -2L * 86400);
  X509_gmtime_adj(X509_getm_notAfter(certificate), valid_seconds);
  X509_set_pubkey(certificate, identity.key.get());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(subject.c_str()), -1, -1, 0);
  X509* signer = issuer == nullptr ? certificate : issuer->certificate.get();
  X509_set_issuer_name(certificate, X509_get_subject_name(signer));
  add_extension(certificate, signer, NID_basic_constraints,
                issuer == nullptr ? "critical,CA:TRUE" : "CA:FALSE");
  if (!names.empty()) add_extension(certificate, signer, NID_subject_alt_name, names);
  EVP_PKEY* key = issuer == nullptr ? identity.key.get() : issuer->key.get();
  if (X509_sign(certificate, key, EVP_sha256()) == 0) throw std::runtime_error("not signed");
  return identity;
}

/// A directory that holds one certificate, as a file and under its hashed name; removed with its object.
class TrustDirectory {
 public:
  explicit TrustDirectory(X509* certificate) {
    char pattern[] = "/tmp/tessaline-tls-XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("no directory");
    path_ = pattern;
    char hashed[16];
    std::snprintf(hashed, sizeof hashed, "%08lx.0", X509_subject_name_hash(certificate));
    hashed_ = path_ + "/" + hashed;
    for (const std::string& name : {file(), hashed_}) {
      FILE* output = fopen(name.c_str(), "w");
      if (output == nullptr || PEM_write_X509(output, certificate) == 0)
        throw std::runtime_error("not written");
      fclose(output);
    }
  }
  ~TrustDirectory() {
    unlink(file().c_str());
    unlink(hashed_.c_str());
    rmdir(path_.c_str());
  }
  TrustDirectory(const TrustDirectory&) = delete;
  TrustDirectory& operator=(const TrustDirectory&) = delete;

  std::string file() const { return path_ + "/authority.pem"; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::string hashed_;
};

/// Shared by the connections of one server: its certificate, and the key of its tickets.
class TlsIdentity {
 public:
  explicit TlsIdentity(const Identity& identity, int highest_version = TLS1_3_VERSION)
      : context_(SSL_CTX_new(TLS_server_method())) {
    SSL_CTX_set_security_level(context_.get(), 0);
    SSL_CTX_set_min_proto_version(context_.get(), TLS1_VERSION);
    SSL_CTX_set_max_proto_version(context_.get(), highest_version);
    SSL_CTX_use_certificate(context_.get(), identity.certificate.get());
    SSL_CTX_use_PrivateKey(context_.get(), identity.key.get());
  }

  SSL* connection() const { return SSL_new(context_.get()); }

 private:
  std::unique_ptr<SSL_CTX, FreeWith<SSL_CTX_free>> context_;
};

/// The server's end of TLS on a connection.
class TlsStream {
 public:
  TlsStream(Connection& connection, const Identity& identity, int highest_version = TLS1_3_VERSION)
      : TlsStream(connection, TlsIdentity(identity, highest_version)) {}

  TlsStream(Connection& connection, const TlsIdentity& identity) {
    // In this thread only: part of the test is that the client never raises SIGPIPE.
    sigset_t broken_pipe;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
    ssl_.reset(identity.connection());
    SSL_set_fd(ssl_.get(), connection.descriptor());
    const timeval patience{kPatience.count() / 1000, 0};
    setsockopt(connection.descriptor(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    accepted_ = SSL_accept(ssl_.get()) == 1;
    ERR_clear_error();
  }

  bool accepted() const { return accepted_; }
  bool resumed() const { return SSL_session_reused(ssl_.get()) == 1; }

  /// Takes a request without body; empty at the end.
  std::string read_head() {
    std::string head;
    char byte = 0;
    while (accepted_ && !head.ends_with("\r\n\r\n")) {
      if (SSL_read(ssl_.get(), &byte, 1) != 1) return {};
      head += byte;
    }
    return head;
  }

  void send(const std::string& bytes) { SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size())); }
  void say_goodbye() { SSL_shutdown(ssl_.get()); }

 private:
  std::unique_ptr<SSL, FreeWith<SSL_free>> ssl_;
  bool accepted_ = false;
};

}  // namespace tessaline::auth::http::testing
