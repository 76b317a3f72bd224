#pragma once

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <new>

namespace tessaline::auth::http {

template <auto kFree>
struct OpenSslFree {
  template <typename Object>
  void operator()(Object* object) const noexcept {
    kFree(object);
  }
};

using Bio = std::unique_ptr<BIO, OpenSslFree<BIO_free>>;
using CertificateHandle = std::unique_ptr<X509, OpenSslFree<X509_free>>;
using NameHandle = std::unique_ptr<X509_NAME, OpenSslFree<X509_NAME_free>>;
using StoreHandle = std::unique_ptr<X509_STORE, OpenSslFree<X509_STORE_free>>;
using TlsSession = std::unique_ptr<SSL_SESSION, OpenSslFree<SSL_SESSION_free>>;

/// Returns what an OpenSSL call made; throws std::bad_alloc for null.
template <typename Object>
Object* made(Object* object) {
  if (object == nullptr) throw std::bad_alloc();
  return object;
}

}  // namespace tessaline::auth::http
