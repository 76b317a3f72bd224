#pragma once

#include <array>
#include <string>
#include <vector>

#include "tessaline/auth/http/file_identity.hpp"
#include "tessaline/auth/http/openssl_handles.hpp"

namespace tessaline::auth::http {

/// One trusted certificate as the file has it. Only its subject is read: of 150 roots a process uses one or
/// two, and to read a whole one takes a hundred times as long.
class StoredCertificate {
 public:
  /// `der` is one certificate, `with_trust` when OpenSSL's trust settings follow it. Throws std::bad_alloc.
  StoredCertificate(std::string der, bool with_trust);

  /// False for what is no certificate at all.
  bool has_any_subject() const noexcept { return subject_ != nullptr; }
  bool has_subject(const X509_NAME* name) const noexcept;

  /// The whole certificate; null where it is damaged. Throws std::bad_alloc.
  CertificateHandle parse() const;

 private:
  std::string der_;
  bool with_trust_;
  NameHandle subject_;
};

/// What was read of a file of certificates in PEM form.
struct CertificateFile {
  int os_errno = 0;  ///< why it could not be read, or 0
  bool is_empty = false;
  bool damaged = false;  ///< something between BEGIN and END cannot be read, or there is no END
  FileIdentity identity = FileIdentity::of(std::string());
  std::array<unsigned char, 32> digest{};  ///< SHA-256 of all of it
  std::vector<StoredCertificate> certificates;
};

/// Files of more than 64 MiB are refused with EFBIG. Never fails but for want of memory (std::bad_alloc):
/// what is wrong is in the result.
CertificateFile read_certificate_file(const std::string& path);

/// Whether the path still leads to what was read from it, or still to nothing.
bool is_unchanged(const std::string& path, CertificateFile& file);

}  // namespace tessaline::auth::http
