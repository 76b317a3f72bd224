#pragma once

#include <array>
#include <string>
#include <vector>

#include "tessaline/auth/http/file_identity.hpp"
#include "tessaline/auth/http/openssl_handles.hpp"

namespace tessaline::auth::http {

/// A trusted certificate in DER. Only its subject is parsed: of 150 roots a process uses one or two, and
/// parsing a whole certificate takes a hundred times as long.
class StoredCertificate {
 public:
  /// `der` is one certificate; with `with_trust`, OpenSSL's trust settings follow it. Throws std::bad_alloc.
  StoredCertificate(std::string der, bool with_trust);

  /// False if the data is not a certificate.
  bool has_any_subject() const noexcept { return subject_ != nullptr; }
  bool has_subject(const X509_NAME* name) const noexcept;

  /// The parsed certificate; null if it is damaged. Throws std::bad_alloc.
  CertificateHandle parse() const;

 private:
  std::string der_;
  bool with_trust_;
  NameHandle subject_;
};

/// The content of a PEM file of certificates.
struct CertificateFile {
  int os_errno = 0;  ///< why it could not be read, or 0
  bool is_empty = false;
  bool damaged = false;  ///< the data between BEGIN and END is invalid, or END is missing
  FileIdentity identity = FileIdentity::of(std::string());
  std::array<unsigned char, 32> digest{};  ///< SHA-256 of the whole file
  std::vector<StoredCertificate> certificates;
};

/// Refuses files above 64 MiB with EFBIG. Throws only std::bad_alloc: other errors are in the result.
CertificateFile read_certificate_file(const std::string& path);

/// Whether the path still names the file that was read, or still no file.
bool is_unchanged(const std::string& path, CertificateFile& file);

}  // namespace tessaline::auth::http
