#pragma once

#include <chrono>
#include <cstddef>

// Every bound that this room sets.

namespace tessaline::auth::http {

// The head of an answer. Each is below the one that some version of libcurl has, so that what is too long
// ends in the same way with all of them: 300 KiB in all, and 5,000 fields. The one on a line is libcurl's.
inline constexpr std::size_t kLongestHeaderLine = 102'400;
inline constexpr std::size_t kMostHeadBytes = 196'608;
inline constexpr std::size_t kMostFields = 4'000;
inline constexpr std::size_t kMostLengthDigits = 18;  ///< what fits a 64-bit number

// The body of an answer, which is some kilobytes.
inline constexpr std::size_t kMostBodyBytes = std::size_t{64} << 20U;
inline constexpr int kMostChunkSizeDigits = 15;  ///< hexadecimal: what fits as well
inline constexpr std::size_t kMostChunkExtensionBytes = 4'096;
inline constexpr std::size_t kMostTrailerBytes = 65'536;
inline constexpr std::size_t kLongestTrailerLine = 4'000;  ///< below libcurl's own, 4 KiB

// A request.
inline constexpr double kLongestTimeoutSeconds = 2'000'000;  ///< what libcurl can count; longer ones are none
inline constexpr std::size_t kMostRedirectTargets = 10;
inline constexpr int kMostRedirectRepeats = 4;  ///< of one target

// How often a request looks whether a signal handler has to run: more often than promised, so that a late
// wake-up is still in time. And how long it sleeps where nobody wants to know.
inline constexpr std::chrono::milliseconds kTickInterval{150};
inline constexpr std::chrono::milliseconds kTicklessWait{10'000};

// Connections.
inline constexpr std::size_t kMostIdle = 32;
inline constexpr std::size_t kWarmOrigins = 4;  ///< with as many idle, a new connection closes the oldest
inline constexpr std::chrono::seconds kLongestIdle{30};
inline constexpr long kCurlIdleSeconds = 3'600;       ///< libcurl's bound on the same: the pool comes first
inline constexpr std::size_t kAtOnce = 24;            ///< connections of a route that nobody waits for
inline constexpr std::chrono::milliseconds kPace{2};  ///< between those beyond
inline constexpr std::chrono::milliseconds kPatientPace{100};  ///< how often who is patient looks again

// TLS. A resumed session does not look at the certificate again, and lives no longer for a server's liking.
inline constexpr std::size_t kMostTlsPeers = 128;
inline constexpr std::size_t kMostSessionsOfOnePeer = 4;
inline constexpr long kLongestResumableSeconds = 3'600;
inline constexpr std::size_t kMostTrusts = 8;                              ///< configurations of roots
inline constexpr std::size_t kMostRootFileBytes = std::size_t{64} << 20U;  ///< some devices have no end

}  // namespace tessaline::auth::http
