#include "tessaline/auth/http/failure.hpp"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <cerrno>
#include <new>
#include <optional>
#include <string>

namespace tessaline::auth::http {
namespace {

Fault fault_of(CURLcode code) {
  Fault fault;
  fault.code = code;
  return fault;
}

FailureKind kind_of(CURLcode code) {
  return kind_of(fault_of(code));
}

const Url kUrl = parse_url("https://h:1/private");

std::string message_of(const Fault& fault,
                       std::optional<std::chrono::duration<double>> timeout = std::nullopt) {
  return failure_from(fault, kUrl, Deadline(timeout)).what();
}

Fault at_proxy(CURLcode code) {
  Fault fault = fault_of(code);
  fault.proxy = proxy_for(kUrl, {.for_https = "http://user:hidden@p:2"});
  return fault;
}

TEST(Failure, ConnectingByTheSystemsError) {
  const std::pair<long, FailureKind> cases[] = {
      {ECONNREFUSED, FailureKind::kRefused},    {ETIMEDOUT, FailureKind::kTimedOut},
      {ENETUNREACH, FailureKind::kUnreachable}, {EHOSTUNREACH, FailureKind::kUnreachable},
      {ECONNRESET, FailureKind::kReset},        {0, FailureKind::kRefused},
  };
  for (const auto& [os_errno, kind] : cases) {
    Fault fault = fault_of(CURLE_COULDNT_CONNECT);
    fault.os_errno = os_errno;
    EXPECT_EQ(kind_of(fault), kind) << os_errno;
  }
}

TEST(Failure, KindsOfCodes) {
  EXPECT_EQ(kind_of(CURLE_COULDNT_RESOLVE_HOST), FailureKind::kUnresolvable);
  EXPECT_EQ(kind_of(CURLE_COULDNT_RESOLVE_PROXY), FailureKind::kUnresolvable);
  EXPECT_EQ(kind_of(CURLE_OPERATION_TIMEDOUT), FailureKind::kTimedOut);
  EXPECT_EQ(kind_of(CURLE_PEER_FAILED_VERIFICATION), FailureKind::kCertificate);
  EXPECT_EQ(kind_of(CURLE_SSL_CONNECT_ERROR), FailureKind::kTls);
  EXPECT_EQ(kind_of(CURLE_SSL_CACERT_BADFILE), FailureKind::kTls);
  EXPECT_EQ(kind_of(CURLE_GOT_NOTHING), FailureKind::kReset);
  EXPECT_EQ(kind_of(CURLE_SEND_ERROR), FailureKind::kReset);
  EXPECT_EQ(kind_of(CURLE_RECV_ERROR), FailureKind::kReset);
  EXPECT_EQ(kind_of(CURLE_PARTIAL_FILE), FailureKind::kTruncated);
  EXPECT_EQ(kind_of(CURLE_UNSUPPORTED_PROTOCOL), FailureKind::kMalformedResponse);
  EXPECT_EQ(kind_of(CURLE_WEIRD_SERVER_REPLY), FailureKind::kMalformedResponse);
  EXPECT_EQ(kind_of(CURLE_BAD_CONTENT_ENCODING), FailureKind::kMalformedResponse);
  EXPECT_EQ(kind_of(CURLE_URL_MALFORMAT), FailureKind::kInvalidRequest);
  EXPECT_EQ(kind_of(CURLE_FAILED_INIT), FailureKind::kOther);
}

TEST(Failure, ReceiveErrorsByWhatWasSeen) {
  Fault fault = fault_of(CURLE_RECV_ERROR);
  EXPECT_EQ(kind_of(fault), FailureKind::kReset);
  fault.head_complete = true;
  EXPECT_EQ(kind_of(fault), FailureKind::kReset);
  fault.over_tls = true;
  EXPECT_EQ(kind_of(fault), FailureKind::kTruncated);
  fault.tls.fatal_alert = SSL_AD_BAD_RECORD_MAC;
  EXPECT_EQ(kind_of(fault), FailureKind::kTls);
}

TEST(Failure, HandshakesByHowTheyEnded) {
  Fault fault = fault_of(CURLE_SSL_CONNECT_ERROR);
  fault.tls.started = true;
  EXPECT_EQ(kind_of(fault), FailureKind::kReset);
  fault.tls.error = ERR_PACK(ERR_LIB_SSL, 0, SSL_R_UNEXPECTED_EOF_WHILE_READING);
  EXPECT_EQ(kind_of(fault), FailureKind::kReset);
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS, nullptr);
  fault.tls.error = ERR_PACK(ERR_LIB_SSL, 0, SSL_R_WRONG_VERSION_NUMBER);
  EXPECT_EQ(kind_of(fault), FailureKind::kTls);
  EXPECT_EQ(message_of(fault), "TLS with h:1 failed: wrong version number");
  EXPECT_EQ(failure_from(fault, kUrl, Deadline(std::nullopt)).detail().tls_reason, "WRONG_VERSION_NUMBER");
}

TEST(Failure, HandshakesThatNobodySaw) {
  Fault fault = fault_of(CURLE_SSL_CONNECT_ERROR);
  EXPECT_EQ(kind_of(fault), FailureKind::kTls);
  fault.remains.ended = true;
  EXPECT_EQ(kind_of(fault), FailureKind::kReset);
  fault.remains.received_bytes = 8;  // an alert, or no TLS at all
  EXPECT_EQ(kind_of(fault), FailureKind::kTls);
}

TEST(Failure, NamesThatDoNotFitTheCertificate) {
  Fault fault = fault_of(CURLE_PEER_FAILED_VERIFICATION);
  fault.tls.started = true;
  const auto failure = failure_from(fault, kUrl, Deadline(std::nullopt));
  EXPECT_STREQ(failure.what(),
               "certificate of h:1 is not acceptable: Hostname mismatch, certificate is not valid for 'h'.");
  EXPECT_EQ(failure.detail().verify_code, X509_V_ERR_HOSTNAME_MISMATCH);
  const auto address = failure_from(fault, parse_url("https://127.0.0.1:1"), Deadline(std::nullopt));
  EXPECT_EQ(address.detail().verify_code, X509_V_ERR_IP_ADDRESS_MISMATCH);
}

TEST(Failure, DescriptorsComeFirst) {
  for (const int shortage : {EMFILE, ENFILE}) {
    Fault fault = fault_of(CURLE_COULDNT_CONNECT);
    fault.open_errno = shortage;
    const auto failure = failure_from(fault, kUrl, Deadline(std::nullopt));
    EXPECT_EQ(failure.kind(), FailureKind::kDescriptors);
    EXPECT_EQ(failure.detail().os_errno, shortage);
  }
}

TEST(Failure, ProxiesByTheirStatus) {
  for (const long status : {429L, 502L, 503L, 504L}) {
    Fault fault = at_proxy(CURLE_RECV_ERROR);
    fault.proxy_status = status;
    EXPECT_EQ(kind_of(fault), FailureKind::kProxyUnavailable) << status;
  }
  for (const long status : {400L, 403L, 407L, 500L}) {
    Fault fault = at_proxy(CURLE_COULDNT_CONNECT);
    fault.proxy_status = status;
    EXPECT_EQ(kind_of(fault), FailureKind::kProxyRefused) << status;
    EXPECT_EQ(message_of(fault), "proxy p:2 for h:1 answered " + std::to_string(status));
  }
}

TEST(Failure, ProxiesForConnectionsByTheirReply) {
  Fault fault = at_proxy(CURLE_PROXY);
  fault.proxy_error = CURLPX_REPLY_CONNECTION_REFUSED;
  EXPECT_EQ(kind_of(fault), FailureKind::kProxyUnavailable);
  fault.proxy_error = CURLPX_USER_REJECTED;
  EXPECT_EQ(kind_of(fault), FailureKind::kProxyRefused);
}

TEST(Failure, TheProxyIsNamedUntilItHasConnectedThrough) {
  Fault fault = at_proxy(CURLE_COULDNT_CONNECT);
  EXPECT_EQ(message_of(fault), "connection refused by proxy p:2 for h:1");
  fault.tunnelled = true;
  EXPECT_EQ(message_of(fault), "connection refused by h:1");
  fault.tunnelled = false;
  fault.code = CURLE_COULDNT_RESOLVE_PROXY;
  EXPECT_EQ(message_of(fault), "name of proxy p:2 for h:1 cannot be resolved");
}

TEST(Failure, LinesThatAreTooLongByTheBytesThatCame) {
  Fault fault = fault_of(CURLE_OUT_OF_MEMORY);
  EXPECT_EQ(kind_of(fault), FailureKind::kOther);
  fault.remains.received_bytes = 200'000;
  EXPECT_EQ(kind_of(fault), FailureKind::kMalformedResponse);
  fault.head_complete = true;
  EXPECT_EQ(kind_of(fault), FailureKind::kOther);
}

TEST(Failure, MessagesNameThePeer) {
  EXPECT_EQ(message_of(fault_of(CURLE_COULDNT_CONNECT)), "connection refused by h:1");
  EXPECT_EQ(message_of(fault_of(CURLE_OPERATION_TIMEDOUT), std::chrono::milliseconds(500)),
            "timed out after 0.5 s waiting for h:1");
  EXPECT_EQ(message_of(fault_of(CURLE_OPERATION_TIMEDOUT)), "timed out waiting for h:1");
  Fault expired = fault_of(CURLE_PEER_FAILED_VERIFICATION);
  expired.tls.started = true;
  expired.tls.verify_code = X509_V_ERR_CERT_HAS_EXPIRED;
  EXPECT_EQ(message_of(expired), "certificate of h:1 is not acceptable: certificate has expired");
  EXPECT_EQ(message_of(fault_of(CURLE_COULDNT_RESOLVE_HOST)), "name of host h:1 cannot be resolved");
  EXPECT_EQ(message_of(fault_of(CURLE_URL_MALFORMAT)), "request to h:1 cannot be sent");
  EXPECT_EQ(message_of(fault_of(CURLE_INTERFACE_FAILED)),
            std::string("request to h:1 failed: ") + curl_easy_strerror(CURLE_INTERFACE_FAILED));
}

TEST(Failure, RequiredCallsThrow) {
  EXPECT_NO_THROW(require(CURLE_OK));
  EXPECT_NO_THROW(require(CURLM_OK));
  EXPECT_THROW(require(CURLE_OUT_OF_MEMORY), std::bad_alloc);
  EXPECT_THROW(require(CURLM_OUT_OF_MEMORY), std::bad_alloc);
  EXPECT_THROW(require(CURLE_UNKNOWN_OPTION), TransportFailure);
  EXPECT_THROW(require(CURLM_BAD_HANDLE), TransportFailure);
}

}  // namespace
}  // namespace tessaline::auth::http
