#include "tessaline/auth/http/certificate_file.hpp"

#include <fcntl.h>
#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

#include "tessaline/auth/http/limits.hpp"

namespace tessaline::auth::http {
namespace {

const unsigned char* bytes_of(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// Steps over the DER elements of a certificate (RFC 5280, section 4.1) without parsing them.
class Elements {
 public:
  explicit Elements(const std::string& der) : next_(bytes_of(der)), end_(next_ + der.size()) {}

  bool enter() { return take(true); }
  bool pass() { return take(false); }
  bool at_context_tag() { return next_ < end_ && (*next_ & 0xC0U) == 0x80U; }

  const unsigned char* next() const { return next_; }
  long left() const { return end_ - next_; }

 private:
  bool take(bool inside) {
    const unsigned char* content = next_;
    long length = 0;
    int tag = 0;
    int form = 0;
    if ((ASN1_get_object(&content, &length, &tag, &form, left()) & 0x80) != 0) return false;
    next_ = inside ? content : content + length;
    return true;
  }

  const unsigned char* next_;
  const unsigned char* end_;
};

NameHandle subject_of(const std::string& der) {
  Elements at(der);
  if (!at.enter() || !at.enter()) return nullptr;         // Certificate, tbsCertificate
  if (at.at_context_tag() && !at.pass()) return nullptr;  // version
  // serialNumber, signature, issuer, validity
  if (!at.pass() || !at.pass() || !at.pass() || !at.pass()) return nullptr;
  const unsigned char* name = at.next();
  return NameHandle(d2i_X509_NAME(nullptr, &name, at.left()));
}

std::string read_whole(const std::string& path, CertificateFile& file) {
  constexpr std::size_t kPiece = std::size_t{64} << 10U;
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) {
    file.os_errno = errno;
    return {};
  }
  file.identity = FileIdentity::of(descriptor);
  const auto close_file = [](const int* open_file) { close(*open_file); };
  const std::unique_ptr<const int, decltype(close_file)> closing(&descriptor, close_file);
  std::string content;
  for (;;) {
    const std::size_t before = content.size();
    content.resize(before + kPiece);
    const ssize_t got = read(descriptor, content.data() + before, kPiece);
    content.resize(before + static_cast<std::size_t>(got > 0 ? got : 0));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) file.os_errno = errno;
    if (got <= 0) return content;
    if (content.size() > kMostRootFileBytes) {
      file.os_errno = EFBIG;
      return {};
    }
  }
}

void digest(const std::string& content, CertificateFile& file) {
  const int made =
      EVP_Digest(content.data(), content.size(), file.digest.data(), nullptr, EVP_sha256(), nullptr);
  if (made != 1) throw std::bad_alloc();
}

struct OpenSslMemory {
  void operator()(void* memory) const noexcept { OPENSSL_free(memory); }
};

/// Whether OpenSSL reported another error than the end of the text.
bool ended_badly() {
  const unsigned long error = ERR_peek_last_error();
  const bool no_more = ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
  if (ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE) throw std::bad_alloc();
  return error != 0 && !no_more;
}

/// The number of BEGIN lines. OpenSSL silently skips a certificate that has no END line or no content.
std::size_t count_begun(std::string_view text) {
  std::size_t begun = 0;
  for (const char* label : {PEM_STRING_X509, PEM_STRING_X509_OLD, PEM_STRING_X509_TRUSTED}) {
    const std::string line = std::string("-----BEGIN ") + label + "-----";
    for (auto at = text.find(line); at != std::string_view::npos; at = text.find(line, at + line.size()))
      ++begun;
  }
  return begun;
}

void add_certificates(const std::string& text, CertificateFile& file) {
  const Bio source(made(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))));
  for (;;) {
    char* label = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    ERR_set_mark();
    const bool found = PEM_read_bio(source.get(), &label, &header, &data, &length) == 1;
    if (!found) file.damaged = ended_badly();
    ERR_pop_to_mark();
    if (!found) return;
    const std::unique_ptr<void, OpenSslMemory> owned[] = {std::unique_ptr<void, OpenSslMemory>(label),
                                                          std::unique_ptr<void, OpenSslMemory>(header),
                                                          std::unique_ptr<void, OpenSslMemory>(data)};
    const std::string_view kind(label);
    const bool with_trust = kind == PEM_STRING_X509_TRUSTED;
    if (!with_trust && kind != PEM_STRING_X509 && kind != PEM_STRING_X509_OLD) continue;
    std::string der(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
    StoredCertificate certificate(std::move(der), with_trust);
    file.damaged = !certificate.has_any_subject();
    if (file.damaged) return;
    file.certificates.push_back(std::move(certificate));
  }
}

}  // namespace

StoredCertificate::StoredCertificate(std::string der, bool with_trust)
    : der_(std::move(der)), with_trust_(with_trust) {
  ERR_set_mark();
  subject_ = subject_of(der_);
  ERR_pop_to_mark();
}

bool StoredCertificate::has_subject(const X509_NAME* name) const noexcept {
  return subject_ && X509_NAME_cmp(subject_.get(), name) == 0;
}

CertificateHandle StoredCertificate::parse() const {
  const unsigned char* data = bytes_of(der_);
  const auto length = static_cast<long>(der_.size());
  ERR_set_mark();
  CertificateHandle certificate(with_trust_ ? d2i_X509_AUX(nullptr, &data, length)
                                            : d2i_X509(nullptr, &data, length));
  // OpenSSL caches the extensions at their first use: before several threads use the certificate.
  if (certificate) X509_check_purpose(certificate.get(), -1, 0);
  ERR_pop_to_mark();
  return certificate;
}

bool is_unchanged(const std::string& path, CertificateFile& file) {
  const FileIdentity now = FileIdentity::of(path);
  if (!now.looks_like(file.identity)) return false;
  if (file.identity.settled()) return true;
  CertificateFile again;
  digest(read_whole(path, again), again);
  if (again.os_errno != file.os_errno || again.digest != file.digest) return false;
  file.identity = again.identity;
  return true;
}

CertificateFile read_certificate_file(const std::string& path) {
  CertificateFile file;
  const std::string text = read_whole(path, file);
  file.is_empty = text.empty();
  digest(text, file);
  if (file.os_errno == 0) add_certificates(text, file);
  file.damaged = file.damaged || file.certificates.size() < count_begun(text);
  return file;
}

}  // namespace tessaline::auth::http
