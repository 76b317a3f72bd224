#include "tessaline/auth/errors/note_texts.hpp"

#include <algorithm>
#include <array>

#include "tessaline/auth/constants.hpp"

namespace tessaline::auth::notes {
namespace {

struct Entry {
  std::string_view reason;
  std::string_view text;
};

constexpr std::array kEntries{
    Entry{reason::kManagerClosed, "the manager was closed: make a new AuthManager to log in again"},
    Entry{reason::kNotAuthenticated,
          "call authenticate() first, and again after a login or a renewal that failed"},
    Entry{reason::kTokenExpired, "the token was not renewed in time: call authenticate() to log in again"},
    Entry{reason::kEraChangePending,
          "a new era was announced and there is no token of it yet: call get_token() again later, or "
          "authenticate() now"},
    Entry{reason::kEraMismatch,
          "the server's token does not carry the announced era: call authenticate() once the server has "
          "changed to it"},
    Entry{reason::kWalletMismatch,
          "the server's token cannot be read or is another wallet's: check that server_url names the right "
          "server"},
    Entry{reason::kWalletSecretChanged,
          "the server sent a different secret for this wallet than before: if that is expected, log in with "
          "a new AuthManager"},
    Entry{reason::kUnexpectedAuthState,
          "some code has set the manager's _state to an invalid value: make a new AuthManager"},
    Entry{reason::kInvalidAddress,
          "the server refused to register this wallet (status 400): check that server_url names the right "
          "server"},
    Entry{reason::kUnauthorized,
          "the server refused this wallet (status 401 or 403): check that server_url names the right server, "
          "or ask its operator"},
    Entry{reason::kInvalidRequest,
          "the server did not understand the request (status 400): check that server_url names the right "
          "server and that the versions of client and server are compatible"},
    Entry{reason::kSignatureMismatch,
          "the server refused the wallet's signature (status 401): check that server_url names the right "
          "server, then call authenticate()"},
    Entry{reason::kProfileUnauthorized,
          "the server refused the token (status 401): call authenticate(), then try again"},
    Entry{reason::kValidationFailed,
          "the server refused the display name: its explanation is in the attribute message"},
    Entry{reason::kRateLimited, "wait for the seconds in the attribute retry_after, then try again"},
    Entry{kInviteReasons[0],
          "the server does not know this invite code: check how it was typed and pass it as invite_code"},
    Entry{kInviteReasons[1], "this invite code has been used: ask for another one"},
    Entry{kInviteReasons[2], "this invite code was withdrawn: ask for another one"},
    Entry{kInviteReasons[3], "the server admits by invitation only: pass a code as invite_code"},
};

static_assert(kInviteReasons == std::array<std::string_view, 4>{"invite_invalid", "invite_already_redeemed",
                                                                "invite_revoked", "invite_required"});

}  // namespace

std::string_view for_reason(std::string_view reason) noexcept {
  const auto* const found = std::ranges::find(kEntries, reason, &Entry::reason);
  return found == kEntries.end() ? std::string_view() : found->text;
}

std::string_view for_failure(http::FailureKind kind) noexcept {
  switch (kind) {
    case http::FailureKind::kUnresolvable:
      return "check the spelling of the host, and this machine's DNS";
    case http::FailureKind::kUnreachable:
      return "check this machine's network";
    case http::FailureKind::kRefused:
      return "nothing listens there: check host and port, and whether the server is running";
    case http::FailureKind::kReset:
    case http::FailureKind::kTruncated:
      return "the server, or something on the way to it, ended the connection: try again";
    case http::FailureKind::kTimedOut:
      return "the server, or the way to it, is slow or drops packets: try again";
    case http::FailureKind::kTls:
      return "check that TLS 1.2 or later is spoken at that port";
    case http::FailureKind::kMalformedResponse:
      return "check host and port: a different service may listen there";
    case http::FailureKind::kProxyUnavailable:
      return "the proxy cannot reach the server now: try again";
    case http::FailureKind::kProxyRefused:
      return "check the proxy's address, user and password, and whether it lets this host be reached";
    case http::FailureKind::kDescriptors:
      return "close what is open, or raise the limit (ulimit -n): then try again";
    case http::FailureKind::kInvalidRequest:
    case http::FailureKind::kCertificate:
    case http::FailureKind::kTrustStore:
    case http::FailureKind::kInterrupted:
    case http::FailureKind::kOther:
      break;
  }
  return {};
}

}  // namespace tessaline::auth::notes
