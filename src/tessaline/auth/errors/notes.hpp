#pragma once

#include <string_view>

#include "tessaline/auth/http/http_client.hpp"

// Notes that advise the caller about an error, one sentence each. None contains secrets.

namespace tessaline::auth::notes {

/// The sentence for an error with this reason; empty for a reason that is not the component's own.
std::string_view for_reason(std::string_view reason) noexcept;

/// The sentence for a failure below HTTP.
std::string_view for_failure(http::FailureKind kind) noexcept;

// Arguments.
inline constexpr std::string_view kKeyRange =
    "a private key is a number above 0 and below the order of the curve secp256k1";
inline constexpr std::string_view kKeyText = "pass the key as text: key.hex() makes it from 32 bytes";
inline constexpr std::string_view kKeyLineEnd =
    "too long by exactly a newline: strip the text, as tessaline.keys does";
inline constexpr std::string_view kUrlForm =
    "write the URL with scheme and host, as in https://service.example";
inline constexpr std::string_view kDisplayNameType = "a display name is a str, and None resets it";
inline constexpr std::string_view kEraNumberType = "an era number is an int from 1";

// Callables that the program passes to the manager.
inline constexpr const char* kClockReading = "the clock has to return seconds as a number, and returned %s";
inline constexpr std::string_view kTransportAnswer =
    "a transport has to return status (int), headers (mapping) and body (bytes)";

// Using the manager.
inline constexpr std::string_view kNotConstructed =
    "a subclass has to call AuthManager.__init__ before anything else";
inline constexpr std::string_view kNoCopies =
    "create a new manager if you need another one; a forked child may use its parent's";
inline constexpr std::string_view kCalledUnderLock =
    "the manager's clock, a finalizer or a signal handler must not call its methods except close(): set a "
    "flag there, and call from elsewhere";
inline constexpr std::string_view kWaitInLogin =
    "a transport, a log handler or a signal handler that runs during a login must not wait for its outcome: "
    "ask for the token before or after it";
inline constexpr std::string_view kOneInterpreter =
    "import it in one interpreter only, and start a process for each other one";
inline constexpr std::string_view kOneImport = "keep the module in sys.modules instead of importing it anew";

// Network, proxies and trust.
inline constexpr const char* kRoots =
    "trusted were the roots in %s and %s: the environment variables SSL_CERT_FILE and SSL_CERT_DIR name "
    "others";
inline constexpr const char* kProxy =
    "the environment variable %s names a proxy, which the request went through unless no_proxy exempts the "
    "host";
inline constexpr const char* kChosenRoots =
    "trusted were the roots in %s alone, which the transport was given as ca_file";
inline constexpr std::string_view kChosenProxy =
    "the request went through the proxy that the transport was given";

// The server.
inline constexpr std::string_view kLoginAnswer =
    "the server's answer is not what a login needs: check that server_url names the right server";
inline constexpr std::string_view kStaleChallenge =
    "the server called each challenge unknown, expired or used: it is safe to try again";
inline constexpr const char* kLastFailure = "the last attempt, %U %U, ended in %s: it is safe to try again";
inline constexpr const char* kLastStatus =
    "the last answer, to %U %U, had status %ld: it is safe to try again";
inline constexpr const char* kLastOddStatus =
    "the last answer, to %U %U, had status %ld: check that server_url names the right server";
inline constexpr const char* kRecorded =
    "another thread of the manager got %s: call authenticate() to try again";

}  // namespace tessaline::auth::notes
