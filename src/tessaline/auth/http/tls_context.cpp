#include "tessaline/auth/http/tls_context.hpp"

#include <curl/curl.h>
#include <openssl/err.h>
#include <openssl/opensslv.h>
#include <openssl/sslerr.h>

#include <algorithm>
#include <ctime>
#include <new>
#include <string_view>
#include <utility>

namespace tessaline::auth::http {
namespace {

/// Lives as long as the context.
struct Binding {
  std::shared_ptr<const Trust> trust;
  std::string peer;
  TlsWatch* watch;
  const SSL* connection = nullptr;
  std::time_t offered_verified_at = 0;  ///< of the offered session

  ~Binding() { std::erase(watch->open, connection); }
};

void free_binding(void*, void* binding, CRYPTO_EX_DATA*, int, long, void*) {
  delete static_cast<Binding*>(binding);
}

int binding_index() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, free_binding);
  if (index < 0) throw std::bad_alloc();
  return index;
}

Binding& binding_of(const SSL* connection) {
  return *static_cast<Binding*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), binding_index()));
}

int on_new_session(SSL* connection, SSL_SESSION* session) {
  const Binding& binding = binding_of(connection);
  if (SSL_get_verify_result(connection) != X509_V_OK) return 0;
  try {
    // Each resumption brings a new session; the certificate was verified only for the first one.
    const bool resumed = SSL_session_reused(connection) == 1;
    const std::time_t verified_at = resumed ? binding.offered_verified_at : std::time(nullptr);
    // A copy: OpenSSL invalidates a TLS 1.2 session whose connection ends without close_notify.
    binding.trust->sessions().keep(binding.peer, TlsSession(made(SSL_SESSION_dup(session))), verified_at);
  } catch (const std::bad_alloc&) {  // a full handshake next time
  }
  return 0;  // the reference stays OpenSSL's
}

// libcurl creates the SSL object itself; this is the first access to it, before anything is sent.
void offer_session(const SSL* connection, Binding& binding) {
  try {
    const TlsSessions::Resumable kept = binding.trust->sessions().take(binding.peer);
    if (!kept.session) return;
    binding.offered_verified_at = kept.verified_at;
    SSL_set_session(const_cast<SSL*>(connection), kept.session.get());
  } catch (const std::bad_alloc&) {  // a full handshake then
  }
}

bool is_unexpected_end(unsigned long error) {
  return ERR_GET_LIB(error) == ERR_LIB_SSL && ERR_GET_REASON(error) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
}

void note_alert(int where, unsigned alert, TlsSight& sight) {
  constexpr unsigned kFatal = 2;
  if ((alert >> 8U) != kFatal) return;
  // OpenSSL also sends an alert when the connection ends, unless told not to.
  const bool ended = where == SSL_CB_WRITE_ALERT && is_unexpected_end(ERR_peek_last_error());
  if (!ended) sight.fatal_alert = static_cast<int>(alert & 0xffU);
}

void on_event(const SSL* connection, int where, int result) {
  Binding& binding = binding_of(connection);
  TlsSight& sight = binding.watch->sight;
  if (where == SSL_CB_HANDSHAKE_START && SSL_in_before(connection) != 0) {
    sight = {.started = true};
    if (binding.connection == nullptr) binding.watch->open.push_back(binding.connection = connection);
    offer_session(connection, binding);
  }
  if ((where & SSL_CB_ALERT) != 0) note_alert(where, static_cast<unsigned>(result), sight);
  if (where == SSL_CB_CONNECT_EXIT) {
    if (result <= 0) sight.error = ERR_peek_last_error();
    sight.verify_code = SSL_get_verify_result(connection);
  }
}

}  // namespace

KeptErrors::KeptErrors() noexcept {
  ERR_set_mark();
}

KeptErrors::~KeptErrors() {
  ERR_pop_to_mark();
}

bool TlsSight::hung_up() const noexcept {
  return fatal_alert < 0 && (error == 0 || is_unexpected_end(error));
}

bool TlsWatch::holds_back() const noexcept {
  return std::ranges::any_of(open, [](const SSL* connection) { return SSL_has_pending(connection) == 1; });
}

std::string TlsSight::reason() const {
  const unsigned long code =
      fatal_alert >= 0 && error == 0 ? ERR_PACK(ERR_LIB_SSL, 0, SSL_AD_REASON_OFFSET + fatal_alert) : error;
  const char* const words = ERR_reason_error_string(code);
  std::string name = words == nullptr ? "" : words;
  for (char& unit : name) {
    const bool lower = unit >= 'a' && unit <= 'z';
    const bool stays = (unit >= 'A' && unit <= 'Z') || (unit >= '0' && unit <= '9');
    if (lower) unit = static_cast<char>(unit - 'a' + 'A');
    if (!lower && !stays) unit = '_';
  }
  // Since OpenSSL 3.5 the texts of SSL 3.0 alerts begin so; their names are unchanged.
  constexpr std::string_view kAlert = "SSL_TLS_ALERT_";
  if (name.starts_with(kAlert)) name.replace(0, kAlert.size(), "SSLV3_ALERT_");
  return name;
}

std::string verify_message(long verify_code) {
  return X509_verify_cert_error_string(verify_code);
}

bool tls_is_shared() noexcept {
  static const bool shared = [] {
    const curl_version_info_data* const curl = curl_version_info(CURLVERSION_NOW);
    const std::string_view theirs = curl->ssl_version == nullptr ? "" : curl->ssl_version;
    constexpr std::string_view kPrefix = "OpenSSL/";
    return theirs.starts_with(kPrefix) &&
           theirs.substr(kPrefix.size()) == OpenSSL_version(OPENSSL_VERSION_STRING);
  }();
  return shared;
}

void bind_context(SSL_CTX* context, std::shared_ptr<const Trust> trust, std::string peer, TlsWatch& watch) {
  watch.open.reserve(watch.open.size() + 1);
  if (SSL_CTX_set1_verify_cert_store(context, trust->roots().store()) != 1) throw std::bad_alloc();
  auto binding = std::make_unique<Binding>(std::move(trust), std::move(peer), &watch);
  if (SSL_CTX_set_ex_data(context, binding_index(), binding.get()) != 1) throw std::bad_alloc();
  static_cast<void>(binding.release());
  SSL_CTX_clear_options(context, SSL_OP_NO_TICKET);  // which libcurl sets
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
  SSL_CTX_sess_set_new_cb(context, on_new_session);
  SSL_CTX_set_info_callback(context, on_event);
}

}  // namespace tessaline::auth::http
