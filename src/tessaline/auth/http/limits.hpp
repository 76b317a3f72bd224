#pragma once

#include <chrono>
#include <cstddef>

// Every limit in `http/`.

namespace tessaline::auth::http {

// The head of a response. Each limit is below the lowest one of any libcurl version (300 KiB in all, 5,000
// fields), so that all versions fail in the same way. That on a line is libcurl's own.
inline constexpr std::size_t kLongestHeaderLine = 102'400;
inline constexpr std::size_t kMostHeadBytes = 196'608;
inline constexpr std::size_t kMostFields = 4'000;
inline constexpr std::size_t kMostLengthDigits = 18;  ///< fits a 64-bit number

// The body of a response, which normally has some kilobytes.
inline constexpr std::size_t kMostBodyBytes = std::size_t{64} << 20U;
inline constexpr int kMostChunkSizeDigits = 15;  ///< hexadecimal: fits a 64-bit number
inline constexpr std::size_t kMostChunkExtensionBytes = 4'096;
inline constexpr std::size_t kMostTrailerBytes = 65'536;
inline constexpr std::size_t kLongestTrailerLine = 4'000;  ///< below libcurl's own, 4 KiB

// A request.
inline constexpr double kLongestTimeoutSeconds = 2'000'000;  ///< fits libcurl's counter; beyond: no limit
inline constexpr std::size_t kMostRedirectTargets = 10;
inline constexpr int kMostRedirectRepeats = 4;  ///< of one target

// How often a waiting request checks for signals: more often than promised, so that a late wake-up is still
// in time. And how long it sleeps when it has no tick.
inline constexpr std::chrono::milliseconds kTickInterval{150};
inline constexpr std::chrono::milliseconds kTicklessWait{10'000};

// Connections.
inline constexpr std::size_t kMostIdle = 32;
inline constexpr std::size_t kWarmOrigins = 4;  ///< with this many idle, a new connection closes the oldest
inline constexpr std::chrono::seconds kLongestIdle{30};
inline constexpr long kCurlIdleSeconds = 3'600;       ///< libcurl's own limit; the pool's applies first
inline constexpr std::size_t kAtOnce = 24;            ///< connections of a route without waiting
inline constexpr std::chrono::milliseconds kPace{2};  ///< between the connections beyond these
inline constexpr std::chrono::milliseconds kPatientPace{100};  ///< polling interval of a patient request

// TLS. A resumed session skips the check of the certificate, so its life is limited here,
// whatever lifetime the server gives it.
inline constexpr std::size_t kMostTlsPeers = 128;
inline constexpr std::size_t kMostSessionsOfOnePeer = 4;
inline constexpr long kLongestResumableSeconds = 3'600;
inline constexpr std::size_t kMostTrusts = 8;                              ///< configurations of roots
inline constexpr std::size_t kMostRootFileBytes = std::size_t{64} << 20U;  ///< some devices have no end

}  // namespace tessaline::auth::http
