#include "tessaline/auth/http/failure.hpp"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <new>
#include <utility>

#include "tessaline/auth/http/failure_table.hpp"
#include "tessaline/auth/http/limits.hpp"
#include "tessaline/auth/http/text.hpp"

namespace tessaline::auth::http {
namespace {

std::string seconds_text(double seconds) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.6g", seconds);
  return text.data();
}

/// The peer of the connection when it failed, as a message names it.
std::string party_of(const Fault& fault, const Url& url) {
  const bool at_proxy = fault.proxy && !fault.tunnelled;
  return at_proxy ? "proxy " + fault.proxy->peer() + " for " + url.peer() : url.peer();
}

/// As certificates write it: an IPv6 address without its brackets.
std::string host_of(const Fault& fault, const Url& url) {
  const std::string& host = fault.proxy && !fault.tunnelled ? fault.proxy->host : url.host;
  return host.starts_with('[') ? host.substr(1, host.size() - 2) : host;
}

bool is_address(const std::string& host) {
  return host.find(':') != std::string::npos || host.find_first_not_of("0123456789.") == std::string::npos;
}

/// libcurl checks the host name itself; OpenSSL then reports no error. The texts are Python's.
void add_certificate_detail(const Fault& fault, const Url& url, FailureDetail& detail) {
  detail.tls_reason = "CERTIFICATE_VERIFY_FAILED";
  detail.verify_code = fault.tls.verify_code;
  if (detail.verify_code != X509_V_OK || !fault.tls.started) {
    if (fault.tls.started) detail.verify_message = verify_message(detail.verify_code);
    return;
  }
  const std::string host = host_of(fault, url);
  const bool address = is_address(host);
  detail.verify_code = address ? X509_V_ERR_IP_ADDRESS_MISMATCH : X509_V_ERR_HOSTNAME_MISMATCH;
  detail.verify_message = std::string(address ? "IP address" : "Hostname") +
                          " mismatch, certificate is not valid for '" + host + "'.";
}

FailureDetail detail_of(FailureKind kind, const Fault& fault, const Url& url) {
  FailureDetail detail;
  detail.through_proxy = fault.proxy.has_value();
  if (kind == FailureKind::kDescriptors) detail.os_errno = fault.open_errno;
  if (kind == FailureKind::kTls) detail.tls_reason = fault.tls.reason();
  if (kind == FailureKind::kCertificate) add_certificate_detail(fault, url, detail);
  return detail;
}

std::string words_of(const std::string& reason, const Fault& fault) {
  if (reason.empty()) return curl_easy_strerror(fault.code);
  std::string words = lower_case(reason);
  std::ranges::replace(words, '_', ' ');
  return words;
}

std::string message_of(FailureKind kind, const FailureDetail& detail, const Fault& fault, const Url& url) {
  const std::string party = party_of(fault, url);
  switch (kind) {
    case FailureKind::kInvalidRequest:
      return "request to " + party + " cannot be sent";
    case FailureKind::kUnresolvable:
      return "name of " + (fault.proxy ? party : "host " + party) + " cannot be resolved";
    case FailureKind::kRefused:
      return "connection refused by " + party;
    case FailureKind::kUnreachable:
      return "no route to " + party;
    case FailureKind::kReset:
      return "connection dropped by " + party;
    case FailureKind::kTruncated:
      return "answer of " + party + " ended too early";
    case FailureKind::kTimedOut:
      return "timed out waiting for " + party;
    case FailureKind::kCertificate:
      return "certificate of " + party + " is not acceptable: " +
             (detail.verify_message.empty() ? curl_easy_strerror(fault.code) : detail.verify_message);
    case FailureKind::kTls:
      return "TLS with " + party + " failed: " + words_of(detail.tls_reason, fault);
    case FailureKind::kMalformedResponse:
      if (!fault.body_too_large) return "answer of " + party + " is not HTTP/1";
      return "answer of " + party + " is too large: more than " + std::to_string(kMostBodyBytes >> 20U) +
             " MiB";
    case FailureKind::kProxyUnavailable:
    case FailureKind::kProxyRefused:
      if (fault.proxy_status != 0) return party + " answered " + std::to_string(fault.proxy_status);
      return party + " refused to connect";
    case FailureKind::kDescriptors:
      return "no descriptor is left for a connection to " + party;
    case FailureKind::kTrustStore:   // the message is made where the certificates are read
    case FailureKind::kInterrupted:  // the caller makes the message
    case FailureKind::kOther:
      break;
  }
  return "request to " + party + " failed: " + curl_easy_strerror(fault.code);
}

FailureKind kind_of_refusal(long proxy_status) {
  return is_transient_at_a_proxy(proxy_status) ? FailureKind::kProxyUnavailable : FailureKind::kProxyRefused;
}

bool is_success(long status) {
  return status / 100 == 2;
}

}  // namespace

FailureKind kind_of(const Fault& fault) {
  if (fault.open_errno == EMFILE || fault.open_errno == ENFILE) return FailureKind::kDescriptors;
  if (fault.proxy_status != 0 && !is_success(fault.proxy_status)) return kind_of_refusal(fault.proxy_status);
  return look_up(fault);
}

TransportFailure failure_from(const Fault& fault, const Url& url, const Deadline& deadline) {
  const FailureKind kind = kind_of(fault);
  if (kind == FailureKind::kTimedOut && deadline.bounded() && fault.code == CURLE_OPERATION_TIMEDOUT) {
    return timed_out(party_of(fault, url), deadline, {.through_proxy = fault.proxy.has_value()});
  }
  FailureDetail detail = detail_of(kind, fault, url);
  const std::string message = message_of(kind, detail, fault, url);
  return {kind, message, std::move(detail)};
}

TransportFailure refused_by_proxy(const Proxy& proxy, const Url& url, long status) {
  Fault fault;
  fault.proxy = proxy;
  fault.proxy_status = status;
  const FailureKind kind = kind_of_refusal(status);
  return {kind, message_of(kind, {}, fault, url), {.through_proxy = true}};
}

TransportFailure timed_out(const std::string& peer, const Deadline& deadline, FailureDetail detail) {
  return {FailureKind::kTimedOut,
          "timed out after " + seconds_text(deadline.seconds()) + " s waiting for " + peer,
          std::move(detail)};
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
