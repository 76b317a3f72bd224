#include "tessaline/auth/http/failure_table.hpp"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cerrno>

#include "tessaline/auth/http/limits.hpp"

namespace tessaline::auth::http {
namespace {

using enum FailureKind;

// The first matching row decides. Nothing here depends on texts, neither libcurl's nor OpenSSL's.
constexpr FailureRow kTable[] = {
    {CURLE_URL_MALFORMAT, Seen::kAnything, kInvalidRequest, "7.88 - 8.23"},
    {CURLE_COULDNT_RESOLVE_HOST, Seen::kAnything, kUnresolvable, "7.88 - 8.23"},
    {CURLE_COULDNT_RESOLVE_PROXY, Seen::kAnything, kUnresolvable, "7.88 - 8.23"},
    {CURLE_COULDNT_CONNECT, Seen::kTimeOut, kTimedOut, "7.88 - 8.23"},
    {CURLE_COULDNT_CONNECT, Seen::kNoRoute, kUnreachable, "7.88 - 8.23"},
    {CURLE_COULDNT_CONNECT, Seen::kConnectReset, kReset, "7.88 - 8.23"},
    {CURLE_COULDNT_CONNECT, Seen::kAnything, kRefused, "7.88 - 8.23"},
    {CURLE_PROXY, Seen::kProxyAway, kProxyUnavailable, "7.88 - 8.23"},
    {CURLE_PROXY, Seen::kAnything, kProxyRefused, "7.88 - 8.23"},
    {CURLE_OPERATION_TIMEDOUT, Seen::kAnything, kTimedOut, "7.88 - 8.23"},
    {CURLE_PEER_FAILED_VERIFICATION, Seen::kAnything, kCertificate, "7.88 - 8.23"},
    {CURLE_SSL_INVALIDCERTSTATUS, Seen::kAnything, kCertificate, "7.88 - 8.23"},
    // TLS within the TLS of a proxy.
    {CURLE_SSL_CONNECT_ERROR, Seen::kUntrusted, kCertificate, "7.88 - 8.14"},
    {CURLE_SSL_CONNECT_ERROR, Seen::kHangUp, kReset, "7.88 - 8.23"},
    {CURLE_SSL_CONNECT_ERROR, Seen::kAnything, kTls, "7.88 - 8.23"},
    {CURLE_SSL_ENGINE_NOTFOUND, Seen::kAnything, kTls, "none"},
    {CURLE_SSL_ENGINE_SETFAILED, Seen::kAnything, kTls, "none"},
    {CURLE_SSL_ENGINE_INITFAILED, Seen::kAnything, kTls, "none"},
    {CURLE_SSL_CERTPROBLEM, Seen::kAnything, kTls, "none"},
    {CURLE_SSL_CIPHER, Seen::kAnything, kTls, "none"},
    {CURLE_SSL_CACERT_BADFILE, Seen::kAnything, kTls, "7.88 - 8.23, where TLS is not OpenSSL's"},
    {CURLE_SSL_SHUTDOWN_FAILED, Seen::kAnything, kTls, "none"},
    {CURLE_SSL_CRL_BADFILE, Seen::kAnything, kTls, "none"},
    {CURLE_SSL_ISSUER_ERROR, Seen::kAnything, kTls, "none"},
    {CURLE_SSL_PINNEDPUBKEYNOTMATCH, Seen::kAnything, kTls, "none"},
    {CURLE_SSL_CLIENTCERT, Seen::kAnything, kTls, "none"},
    {CURLE_GOT_NOTHING, Seen::kFatalAlert, kTls, "none"},
    {CURLE_GOT_NOTHING, Seen::kAnything, kReset, "7.88 - 8.23"},
    {CURLE_SEND_ERROR, Seen::kFatalAlert, kTls, "7.88 - 8.23"},
    {CURLE_SEND_ERROR, Seen::kAnything, kReset, "7.88 - 8.23"},
    {CURLE_RECV_ERROR, Seen::kFatalAlert, kTls, "7.88 - 8.23"},
    {CURLE_RECV_ERROR, Seen::kTlsInBody, kTruncated, "7.88 - 8.23"},
    {CURLE_RECV_ERROR, Seen::kAnything, kReset, "7.88 - 8.23"},
    {CURLE_PARTIAL_FILE, Seen::kAnything, kTruncated, "7.88 - 8.23"},
    // Not HTTP, or a version that libcurl does not know.
    {CURLE_UNSUPPORTED_PROTOCOL, Seen::kAnything, kMalformedResponse, "7.88 - 8.23"},
    {CURLE_WEIRD_SERVER_REPLY, Seen::kAnything, kMalformedResponse, "7.88 - 8.23"},
    {CURLE_BAD_CONTENT_ENCODING, Seen::kAnything, kMalformedResponse, "none"},
    {CURLE_FILESIZE_EXCEEDED, Seen::kAnything, kMalformedResponse, "none"},
    // A header line or a part of the body that our callbacks refused.
    {CURLE_WRITE_ERROR, Seen::kAnything, kMalformedResponse, "7.88 - 8.23"},
    {kCodeTooLarge, Seen::kAnything, kMalformedResponse, "8.6 - 8.23"},
    // std::bad_alloc has been thrown before if memory is really short.
    {CURLE_OUT_OF_MEMORY, Seen::kLongLine, kMalformedResponse, "7.88"},
    // A head that starts with a continuation line.
    {CURLE_BAD_FUNCTION_ARGUMENT, Seen::kAnswer, kMalformedResponse, "7.88"},
};

bool is_server_away(long proxy_error) {
  switch (proxy_error) {
    case CURLPX_CLOSED:
    case CURLPX_RECV_CONNECT:
    case CURLPX_RECV_REQACK:
    case CURLPX_SEND_CONNECT:
    case CURLPX_SEND_REQUEST:
    case CURLPX_REPLY_GENERAL_SERVER_FAILURE:
    case CURLPX_REPLY_NETWORK_UNREACHABLE:
    case CURLPX_REPLY_HOST_UNREACHABLE:
    case CURLPX_REPLY_CONNECTION_REFUSED:
    case CURLPX_REPLY_TTL_EXPIRED:
      return true;
    default:
      return false;
  }
}

}  // namespace

bool holds(Seen seen, const Fault& fault) noexcept {
  const TlsSight& tls = fault.tls;
  switch (seen) {
    case Seen::kAnything:
      return true;
    case Seen::kTimeOut:
      return fault.os_errno == ETIMEDOUT;
    case Seen::kNoRoute:
      return fault.os_errno == ENETUNREACH || fault.os_errno == EHOSTUNREACH || fault.os_errno == ENETDOWN ||
             fault.os_errno == EHOSTDOWN;
    case Seen::kConnectReset:
      return fault.os_errno == ECONNRESET;
    case Seen::kFatalAlert:
      return tls.fatal_alert >= 0;
    case Seen::kUntrusted:
      return tls.verify_code != X509_V_OK;
    case Seen::kHangUp:
      return tls.started ? tls.hung_up() : fault.remains.ended && fault.remains.said_nothing();
    case Seen::kTlsInBody:
      return fault.head_complete && fault.over_tls;
    case Seen::kAnswer:
      return fault.answer_begun;
    case Seen::kLongLine:
      return fault.remains.received_bytes >= kLongestHeaderLine && !fault.head_complete;
    case Seen::kProxyAway:
      return is_server_away(fault.proxy_error);
  }
  return false;
}

FailureKind look_up(const Fault& fault) noexcept {
  const auto* const row = std::ranges::find_if(kTable, [&](const FailureRow& candidate) {
    return candidate.code == fault.code && holds(candidate.seen, fault);
  });
  return row == std::end(kTable) ? kOther : row->kind;
}

}  // namespace tessaline::auth::http
