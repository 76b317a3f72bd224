#include "tessaline/auth/http/failure.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <optional>
#include <string>

namespace tessaline::auth::http {
namespace {

Fault fault_of(CURLcode code, const char* reason = "") {
  Fault fault;
  fault.code = code;
  fault.reason = reason;
  return fault;
}

FailureKind kind_of(CURLcode code, const char* reason = "") {
  return classify(fault_of(code, reason));
}

std::string message_of(const Fault& fault,
                       std::optional<std::chrono::duration<double>> timeout = std::nullopt) {
  return failure_from(fault, "h:1", Deadline(timeout)).what();
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
    EXPECT_EQ(classify(fault), kind) << os_errno;
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

TEST(Failure, ReceiveErrorsByReason) {
  EXPECT_EQ(kind_of(CURLE_RECV_ERROR, "Illegal or missing hexadecimal sequence in chunked-encoding"),
            FailureKind::kMalformedResponse);
  EXPECT_EQ(kind_of(CURLE_RECV_ERROR, "Too large response headers: 307203 > 307200"),
            FailureKind::kMalformedResponse);
  EXPECT_EQ(
      kind_of(CURLE_RECV_ERROR, "SSL_read: error:0A00045C:SSL routines::tlsv13 alert certificate required"),
      FailureKind::kTls);
  EXPECT_EQ(kind_of(CURLE_RECV_ERROR, "Recv failure: Connection reset by peer"), FailureKind::kReset);
  Fault ended =
      fault_of(CURLE_RECV_ERROR, "SSL_read: error:0A000126:SSL routines::unexpected eof while reading");
  EXPECT_EQ(classify(ended), FailureKind::kReset);
  ended.head_complete = true;
  EXPECT_EQ(classify(ended), FailureKind::kTruncated);
}

TEST(Failure, PeerThatHangsUpInTheHandshake) {
  for (const char* reason : {"OpenSSL SSL_connect: SSL_ERROR_SYSCALL in connection to h:1",
                             "OpenSSL SSL_connect: Connection reset by peer in connection to h:1",
                             "error:0A000126:SSL routines::unexpected eof while reading"}) {
    EXPECT_EQ(kind_of(CURLE_SSL_CONNECT_ERROR, reason), FailureKind::kReset) << reason;
  }
}

TEST(Failure, MessagesNameThePeer) {
  EXPECT_EQ(message_of(fault_of(CURLE_COULDNT_CONNECT)), "connection refused by h:1");
  EXPECT_EQ(message_of(fault_of(CURLE_OPERATION_TIMEDOUT), std::chrono::milliseconds(500)),
            "timed out after 0.5 s waiting for h:1");
  EXPECT_EQ(message_of(fault_of(CURLE_OPERATION_TIMEDOUT)), "timed out waiting for h:1");
  EXPECT_EQ(message_of(fault_of(CURLE_PEER_FAILED_VERIFICATION, "expired")),
            "certificate of h:1 is not acceptable: expired");
  EXPECT_EQ(message_of(fault_of(CURLE_COULDNT_RESOLVE_HOST)), "name of host h:1 cannot be resolved");
  EXPECT_EQ(message_of(fault_of(CURLE_COULDNT_RESOLVE_PROXY)),
            "name of the proxy for h:1 cannot be resolved");
  EXPECT_EQ(message_of(fault_of(CURLE_URL_MALFORMAT)), "request to h:1 cannot be sent");
  EXPECT_EQ(message_of(fault_of(CURLE_INTERFACE_FAILED)),
            std::string("request to h:1 failed: ") + curl_easy_strerror(CURLE_INTERFACE_FAILED));
  Fault refused = fault_of(CURLE_RECV_ERROR);
  refused.proxy_status = 407;
  EXPECT_EQ(message_of(refused), "proxy for h:1 answered 407");
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
