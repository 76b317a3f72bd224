#include "tessaline/auth/transport/default_trust.hpp"

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/transport/trust_places.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

constinit const python::Name kSsl{"ssl"};
constinit const python::Name kVerifyPaths{"get_default_verify_paths"};
constinit const python::Name kCaFile{"cafile"};
constinit const python::Name kCaPath{"capath"};

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

std::string path_of(PyObject* paths, const python::Name& member) {
  Ref value = python::attribute(paths, member);
  if (value.is_none()) return {};
  Ref encoded = python::checked(PyUnicode_EncodeFSDefault(value.get()));
  return {PyBytes_AS_STRING(encoded.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(encoded.get()))};
}

http::TrustStore ask_python() {
  Ref ssl;
  std::optional<python::Error> failure = python::caught([&] { ssl = python::import(kSsl); });
  if (failure) {
    if (!failure->matches(PyExc_ImportError)) throw std::move(*failure);
    return {};
  }
  Ref paths = python::call_method(ssl.get(), kVerifyPaths);
  return {path_of(paths.get(), kCaFile), path_of(paths.get(), kCaPath)};
}

/// For example Python with a TLS library built for paths that this system does not use; building one creates
/// an empty directory there.
bool holds_nothing(const http::TrustStore& store) {
  return store.ca_file.empty() && (store.ca_directory.empty() || !holds_certificates(store.ca_directory));
}

struct Remembered {
  std::string file_variable;
  std::string directory_variable;
  http::TrustStore store;

  /// Whether this is final. If not, certificates may still be installed while the program runs.
  bool stays() const {
    return !store.ca_file.empty() || (file_variable.empty() && !store.ca_directory.empty());
  }
};

}  // namespace

http::TrustStore default_trust_store() {
  // Asking Python costs an import and some system calls. The GIL guards this.
  static Remembered* remembered = nullptr;
  const std::string file = variable("SSL_CERT_FILE");
  const std::string directory = variable("SSL_CERT_DIR");
  const bool known = remembered != nullptr && remembered->file_variable == file &&
                     remembered->directory_variable == directory && remembered->stays();
  if (known) return remembered->store;
  http::TrustStore store = ask_python();
  if (file.empty() && directory.empty() && holds_nothing(store)) store = find_system_trust_store();
  if (remembered == nullptr) remembered = new Remembered;
  *remembered = {file, directory, store};
  return store;
}

}  // namespace tessaline::auth
