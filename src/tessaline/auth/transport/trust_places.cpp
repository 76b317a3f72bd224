#include "tessaline/auth/transport/trust_places.hpp"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <string_view>

namespace tessaline::auth {
namespace {

constexpr const char* kFiles[] = {
    "/etc/ssl/certs/ca-certificates.crt",                 // Debian, Arch, Alpine
    "/etc/pki/tls/certs/ca-bundle.crt",                   // Fedora, RHEL
    "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",  // the same, if the above is missing
    "/etc/ssl/ca-bundle.pem",                             // openSUSE
    "/etc/ssl/cert.pem",                                  // Alpine, OpenSSL's own default
};
constexpr const char* kDirectories[] = {"/etc/ssl/certs", "/etc/pki/tls/certs"};

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

bool is_filled_file(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
         access(path.c_str(), R_OK) == 0;
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

bool names_certificate(std::string_view name) {
  constexpr std::size_t kHashDigits = 8;
  if (name.size() < kHashDigits + 2 || name[kHashDigits] != '.') return false;
  const auto is_hash_digit = [](char c) { return is_digit(c) || (c >= 'a' && c <= 'f'); };
  return std::ranges::all_of(name.substr(0, kHashDigits), is_hash_digit) &&
         std::ranges::all_of(name.substr(kHashDigits + 1), is_digit);
}

}  // namespace

bool holds_certificates(const std::string& path) {
  const std::unique_ptr<DIR, CloseDirectory> directory(opendir(path.c_str()));
  if (directory == nullptr) {
    if (errno == ENOMEM) throw std::bad_alloc();
    return false;
  }
  while (const dirent* entry = readdir(directory.get())) {
    if (names_certificate(entry->d_name)) return true;
  }
  return false;
}

http::TrustStore find_system_trust_store(const std::string& root) {
  for (const char* place : kFiles) {
    const std::string path = root + place;
    if (is_filled_file(path)) return {path, {}};
  }
  for (const char* place : kDirectories) {
    const std::string path = root + place;
    if (holds_certificates(path)) return {{}, path};
  }
  return {};
}

}  // namespace tessaline::auth
