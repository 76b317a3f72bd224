#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tessaline/auth/http/certificate_file.hpp"
#include "tessaline/auth/http/file_identity.hpp"
#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/openssl_handles.hpp"

namespace tessaline::auth::http {

/// The certificates of one file and one hashed directory, as a store for verification by any number of
/// threads. The file is read at construction. In the directory a certificate is looked up by its name, as
/// OpenSSL does. Each certificate that is used is parsed once.
class TrustedRoots {
 public:
  /// Throws TransportFailure, kTrustStore or kDescriptors, if the file cannot be read, and std::bad_alloc.
  explicit TrustedRoots(const TrustStore& places);
  TrustedRoots(const TrustedRoots&) = delete;
  TrustedRoots& operator=(const TrustedRoots&) = delete;

  /// Whether no file that was read, or would be, has changed since. Takes a few system calls.
  bool is_current() const;

  /// Owned by this object, whose lookups it calls: must not outlive it.
  X509_STORE* store() const noexcept { return store_.get(); }

 private:
  using Used = std::pair<std::string, CertificateFile>;

  static int look_up(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name,
                     X509_OBJECT* found) noexcept;
  bool add(const std::vector<StoredCertificate>& certificates, const X509_NAME* name) const;
  bool add_from_directory(const X509_NAME* name) const;
  void remember(const std::string& path, CertificateFile file) const;
  bool hand_over(const X509_NAME* name, X509_OBJECT* found) const noexcept;

  const TrustStore places_;
  const FileIdentity directory_;
  mutable CertificateFile file_;  ///< modified only under the mutex
  StoreHandle store_;
  mutable std::mutex mutex_;
  mutable std::vector<Used>
      used_;  ///< files of the directory that have been read, without their certificates
};

}  // namespace tessaline::auth::http
