#include "tessaline/auth/http/tls_sessions.hpp"

#include <algorithm>
#include <utility>

#include "tessaline/auth/http/limits.hpp"

namespace tessaline::auth::http {
namespace {

bool is_usable(const TlsSessions::Resumable& kept) {
  const std::time_t age = std::time(nullptr) - kept.verified_at;
  return SSL_SESSION_is_resumable(kept.session.get()) == 1 && age >= 0 && age < kLongestResumableSeconds;
}

}  // namespace

void TlsSessions::keep(const std::string& peer, TlsSession session, std::time_t verified_at) {
  const std::lock_guard lock(mutex_);
  auto found = std::ranges::find(peers_, peer, &Peer::name);
  if (found == peers_.end()) {
    if (peers_.size() >= kMostTlsPeers) peers_.erase(peers_.begin());
    peers_.push_back(Peer{peer, {}});
  } else {
    std::rotate(found, found + 1, peers_.end());
  }
  auto& sessions = peers_.back().sessions;
  sessions.push_back({std::move(session), verified_at});
  if (sessions.size() > kMostSessionsOfOnePeer) sessions.erase(sessions.begin());
}

TlsSessions::Resumable TlsSessions::take(const std::string& peer) {
  const std::lock_guard lock(mutex_);
  const auto found = std::ranges::find(peers_, peer, &Peer::name);
  if (found == peers_.end()) return {};
  std::erase_if(found->sessions, [](const Resumable& kept) { return !is_usable(kept); });
  if (found->sessions.empty()) return {};
  const Resumable& latest = found->sessions.back();
  if (SSL_SESSION_get_protocol_version(latest.session.get()) < TLS1_3_VERSION) {
    // A copy: OpenSSL invalidates a session whose connection ends without close_notify.
    return {TlsSession(made(SSL_SESSION_dup(latest.session.get()))), latest.verified_at};
  }
  Resumable taken = std::move(found->sessions.back());
  found->sessions.pop_back();
  return taken;
}

}  // namespace tessaline::auth::http
