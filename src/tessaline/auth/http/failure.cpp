#include "tessaline/auth/http/failure.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <new>
#include <string_view>

namespace tessaline::auth::http {
namespace {

bool mentions(const Fault& fault, std::string_view words) {
  return fault.reason.find(words) != std::string::npos;
}

FailureKind classify_connect(long os_errno) {
  switch (os_errno) {
    case ETIMEDOUT:
      return FailureKind::kTimedOut;
    case ENETUNREACH:
    case EHOSTUNREACH:
    case ENETDOWN:
    case EHOSTDOWN:
      return FailureKind::kUnreachable;
    case ECONNRESET:
      return FailureKind::kReset;
    default:
      return FailureKind::kRefused;
  }
}

// OpenSSL reports a connection that just ends in one of these ways, depending on how and when it ended.
bool peer_hung_up(const Fault& fault) {
  return mentions(fault, "unexpected eof") || mentions(fault, "SSL_ERROR_SYSCALL") ||
         mentions(fault, "Connection reset") || mentions(fault, "Broken pipe");
}

FailureKind classify_receive(const Fault& fault) {
  if (fault.proxy_status / 100 != 2 && fault.proxy_status != 0) return FailureKind::kOther;
  if (mentions(fault, "in chunked-encoding") || mentions(fault, "Too large response headers")) {
    return FailureKind::kMalformedResponse;
  }
  if (mentions(fault, "unexpected eof")) {
    return fault.head_complete ? FailureKind::kTruncated : FailureKind::kReset;
  }
  const bool tls_broke = mentions(fault, "SSL routines") && !peer_hung_up(fault);
  return tls_broke ? FailureKind::kTls : FailureKind::kReset;
}

std::string seconds_text(double seconds) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.6g", seconds);
  return text.data();
}

/// libcurl quotes names out of the certificate, which its holder chose.
std::string printable(std::string_view text) {
  constexpr std::size_t kLongest = 200;
  std::string shown(text.substr(0, kLongest));
  std::replace_if(
      shown.begin(), shown.end(), [](char unit) { return unit < ' ' || unit > '~'; }, '?');
  return shown;
}

std::string message_of(FailureKind kind, const Fault& fault, const std::string& peer) {
  switch (kind) {
    case FailureKind::kInvalidRequest:
      return "request to " + peer + " cannot be sent";
    case FailureKind::kUnresolvable:
      if (fault.code == CURLE_COULDNT_RESOLVE_PROXY)
        return "name of the proxy for " + peer + " cannot be resolved";
      return "name of host " + peer + " cannot be resolved";
    case FailureKind::kRefused:
      return "connection refused by " + peer;
    case FailureKind::kUnreachable:
      return "no route to " + peer;
    case FailureKind::kReset:
      return "connection dropped by " + peer;
    case FailureKind::kTruncated:
      return "answer of " + peer + " ended too early";
    case FailureKind::kTimedOut:
      return "timed out waiting for " + peer;
    case FailureKind::kCertificate:
      return "certificate of " + peer + " is not acceptable: " + printable(fault.reason);
    case FailureKind::kTls:
      return "TLS with " + peer + " failed: " + curl_easy_strerror(fault.code);
    case FailureKind::kMalformedResponse:
      if (!fault.body_too_large) return "answer of " + peer + " is not HTTP/1";
      return "answer of " + peer + " is too large: more than " + std::to_string(kMostBodyBytes >> 20U) +
             " MiB";
    case FailureKind::kInterrupted:  // by the caller, who words it himself
    case FailureKind::kOther:
      break;
  }
  if (fault.proxy_status != 0) return "proxy for " + peer + " answered " + std::to_string(fault.proxy_status);
  return "request to " + peer + " failed: " + curl_easy_strerror(fault.code);
}

}  // namespace

FailureKind classify(const Fault& fault) {
  switch (fault.code) {
    case CURLE_URL_MALFORMAT:
      return FailureKind::kInvalidRequest;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return FailureKind::kUnresolvable;
    case CURLE_COULDNT_CONNECT:
      return classify_connect(fault.os_errno);
    case CURLE_OPERATION_TIMEDOUT:
      return FailureKind::kTimedOut;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_INVALIDCERTSTATUS:
      return FailureKind::kCertificate;
    case CURLE_SSL_CONNECT_ERROR:
      return peer_hung_up(fault) ? FailureKind::kReset : FailureKind::kTls;
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_CLIENTCERT:
      return FailureKind::kTls;
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
      return FailureKind::kReset;
    case CURLE_RECV_ERROR:
      return classify_receive(fault);
    case CURLE_PARTIAL_FILE:
      return FailureKind::kTruncated;
    case CURLE_UNSUPPORTED_PROTOCOL:  // how libcurl calls a version of HTTP that it does not know
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
    case CURLE_FILESIZE_EXCEEDED:
    case CURLE_WRITE_ERROR:  // a line that ours refused
      return FailureKind::kMalformedResponse;
    case CURLE_BAD_FUNCTION_ARGUMENT:  // a head that starts with a continuation line
    case CURLE_OUT_OF_MEMORY:          // a header line beyond libcurl's bound
      return fault.answer_begun ? FailureKind::kMalformedResponse : FailureKind::kOther;
    default:
      return FailureKind::kOther;
  }
}

TransportFailure failure_from(const Fault& fault, const std::string& peer, const Deadline& deadline) {
  const FailureKind kind = classify(fault);
  if (fault.code == CURLE_OPERATION_TIMEDOUT && deadline.bounded()) return timed_out(peer, deadline);
  return {kind, message_of(kind, fault, peer)};
}

TransportFailure timed_out(const std::string& peer, const Deadline& deadline) {
  return {FailureKind::kTimedOut,
          "timed out after " + seconds_text(deadline.seconds()) + " s waiting for " + peer};
}

void require(CURLcode code) {
  if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLE_OK) {
    throw TransportFailure(FailureKind::kOther,
                           std::string("HTTP library failed: ") + curl_easy_strerror(code));
  }
}

void require(CURLMcode code) {
  if (code == CURLM_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLM_OK) {
    throw TransportFailure(FailureKind::kOther,
                           std::string("HTTP library failed: ") + curl_multi_strerror(code));
  }
}

}  // namespace tessaline::auth::http
