#include "tessaline/auth/http/tls_sessions.hpp"

#include <algorithm>
#include <ctime>
#include <utility>

namespace tessaline::auth::http {
namespace {

std::time_t start_of(const SSL_SESSION* session) {
#if OPENSSL_VERSION_PREREQ(3, 3)
  return SSL_SESSION_get_time_ex(session);
#else
  return SSL_SESSION_get_time(session);
#endif
}

bool is_usable(const TlsSession& session) {
  const std::time_t age = std::time(nullptr) - start_of(session.get());
  return SSL_SESSION_is_resumable(session.get()) == 1 && age >= 0 && age < TlsSessions::kLongestSeconds;
}

}  // namespace

void TlsSessions::keep(const std::string& peer, TlsSession session) {
  const std::lock_guard lock(mutex_);
  auto found = std::ranges::find(peers_, peer, &Peer::name);
  if (found == peers_.end()) {
    if (peers_.size() >= kMostPeers) peers_.erase(peers_.begin());
    peers_.push_back(Peer{peer, {}});
  } else {
    std::rotate(found, found + 1, peers_.end());
  }
  auto& sessions = peers_.back().sessions;
  sessions.push_back(std::move(session));
  if (sessions.size() > kMostOfOnePeer) sessions.erase(sessions.begin());
}

TlsSession TlsSessions::take(const std::string& peer) {
  const std::lock_guard lock(mutex_);
  const auto found = std::ranges::find(peers_, peer, &Peer::name);
  if (found == peers_.end()) return nullptr;
  std::erase_if(found->sessions, [](const TlsSession& session) { return !is_usable(session); });
  if (found->sessions.empty()) return nullptr;
  const TlsSession& latest = found->sessions.back();
  if (SSL_SESSION_get_protocol_version(latest.get()) < TLS1_3_VERSION) {
    // A copy: OpenSSL spoils that of a connection which ends without a word.
    return TlsSession(made(SSL_SESSION_dup(latest.get())));
  }
  TlsSession taken = std::move(found->sessions.back());
  found->sessions.pop_back();
  return taken;
}

}  // namespace tessaline::auth::http
