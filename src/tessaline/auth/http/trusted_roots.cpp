#include "tessaline/auth/http/trusted_roots.hpp"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace tessaline::auth::http {
namespace {

[[noreturn]] void refuse(const std::string& path, int os_errno, const std::string& why) {
  const bool exhausted = os_errno == EMFILE || os_errno == ENFILE;
  throw TransportFailure(exhausted ? FailureKind::kDescriptors : FailureKind::kTrustStore,
                         "trusted certificates cannot be read from " + path + ": " + why,
                         {.os_errno = os_errno});
}

void check(const std::string& path, const CertificateFile& file) {
  if (file.os_errno == ENOMEM) throw std::bad_alloc();
  if (file.os_errno != 0) refuse(path, file.os_errno, std::generic_category().message(file.os_errno));
  if (file.damaged) {
    refuse(path, 0, "it is damaged after certificate " + std::to_string(file.certificates.size()));
  }
  if (!file.certificates.empty()) return;
  refuse(path, 0, file.is_empty ? "it is empty" : "there is no certificate in it");
}

/// One for the process, never freed.
X509_LOOKUP_METHOD* lookup_method(X509_LOOKUP_get_by_subject_fn look_up) {
  static X509_LOOKUP_METHOD* const method = [&] {
    X509_LOOKUP_METHOD* fresh = made(X509_LOOKUP_meth_new("tessaline"));
    if (X509_LOOKUP_meth_set_get_by_subject(fresh, look_up) != 1) throw std::bad_alloc();
    return fresh;
  }();
  return method;
}

}  // namespace

TrustedRoots::TrustedRoots(const TrustStore& places)
    // Taken before the directory is read, so that a later change is noticed.
    : places_(places), directory_(FileIdentity::of(places.ca_directory)), store_(made(X509_STORE_new())) {
  if (!places_.ca_file.empty()) {
    file_ = read_certificate_file(places_.ca_file);
    check(places_.ca_file, file_);
  }
  // As in libcurl and Python: any trusted certificate ends the chain, root or not.
  X509_STORE_set_flags(store_.get(), X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
  X509_LOOKUP* lookup = made(X509_STORE_add_lookup(store_.get(), lookup_method(look_up)));
  X509_LOOKUP_set_method_data(lookup, this);
}

bool TrustedRoots::is_current() const {
  const std::lock_guard lock(mutex_);
  if (!places_.ca_file.empty() && !is_unchanged(places_.ca_file, file_)) return false;
  if (places_.ca_directory.empty()) return true;
  // If the directory had just changed, certificates are searched again.
  const FileIdentity directory = FileIdentity::of(places_.ca_directory);
  if (!directory_.settled() || !directory.looks_like(directory_)) return false;
  return std::ranges::all_of(used_, [](Used& used) { return is_unchanged(used.first, used.second); });
}

int TrustedRoots::look_up(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name,
                          X509_OBJECT* found) noexcept {
  if (type != X509_LU_X509) return 0;
  const auto& roots = *static_cast<const TrustedRoots*>(X509_LOOKUP_get_method_data(lookup));
  try {
    const bool any = roots.add(roots.file_.certificates, name) || roots.add_from_directory(name);
    return any && roots.hand_over(name, found) ? 1 : 0;
  } catch (const std::bad_alloc&) {
    return 0;  // a certificate that is not found is not trusted
  }
}

bool TrustedRoots::add(const std::vector<StoredCertificate>& certificates, const X509_NAME* name) const {
  bool any = false;
  for (const StoredCertificate& stored : certificates) {
    if (!stored.has_subject(name)) continue;
    const CertificateHandle certificate = stored.parse();
    if (!certificate) continue;
    if (X509_STORE_add_cert(store_.get(), certificate.get()) != 1) throw std::bad_alloc();
    any = true;
  }
  return any;
}

bool TrustedRoots::add_from_directory(const X509_NAME* name) const {
  if (places_.ca_directory.empty()) return false;
  int hashed = 0;
  const unsigned long hash = X509_NAME_hash_ex(name, nullptr, nullptr, &hashed);
  if (hashed == 0) throw std::bad_alloc();
  bool any = false;
  for (int number = 0;; ++number) {
    std::array<char, 32> leaf{};
    std::snprintf(leaf.data(), leaf.size(), "/%08lx.%d", hash, number);
    const std::string path = places_.ca_directory + leaf.data();
    CertificateFile file = read_certificate_file(path);
    if (file.os_errno == ENOENT) return any;
    any = add(file.certificates, name) || any;
    const bool readable = file.os_errno == 0;
    remember(path, std::move(file));
    if (!readable) return any;
  }
}

void TrustedRoots::remember(const std::string& path, CertificateFile file) const {
  file.certificates.clear();
  const std::lock_guard lock(mutex_);
  if (std::ranges::find(used_, path, &Used::first) == used_.end()) used_.emplace_back(path, std::move(file));
}

// The store's object and not the added one: if two threads add the same, one of them is dropped.
bool TrustedRoots::hand_over(const X509_NAME* name, X509_OBJECT* found) const noexcept {
  if (X509_STORE_lock(store_.get()) != 1) return false;
  X509* certificate = nullptr;
  if (X509_OBJECT* kept =
          X509_OBJECT_retrieve_by_subject(X509_STORE_get0_objects(store_.get()), X509_LU_X509, name)) {
    certificate = X509_OBJECT_get0_X509(kept);
  }
  const bool taken = certificate != nullptr && X509_OBJECT_set1_X509(found, certificate) == 1;
  // OpenSSL takes its own reference to what a lookup found; until then, the store's keeps it alive.
  if (taken) X509_free(certificate);
  X509_STORE_unlock(store_.get());
  return taken;
}

}  // namespace tessaline::auth::http
