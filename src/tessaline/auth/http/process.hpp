#pragma once

#include <mutex>

/// What a process that uses libcurl must care for once: its start, its forks and its exit.
namespace tessaline::auth::http::process {

/// Guards the session pool, every session's list of sockets and the count of threads inside libcurl. Held
/// across a fork. No libcurl call that can run a callback is made under it.
std::mutex& mutex() noexcept;

/// How many forks lie between this process and the first one. What was made under another number belongs to a
/// parent process.
unsigned long generation() noexcept;

/// Ends here, for ever, when the process is exiting: libcurl's and OpenSSL's globals are being torn down, and
/// nothing of ours may touch them any more. Call it around every wait.
void park_if_exiting();

/// The calling thread is inside libcurl. Sets libcurl up on first use; throws std::bad_alloc or
/// TransportFailure when that fails. A thread that comes while the process is exiting is parked.
class Inside {
 public:
  Inside();
  ~Inside();
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
};

/// The calling thread, inside libcurl, runs foreign code for a while: the exit does not wait for it.
class Outside {
 public:
  Outside();
  ~Outside();
  Outside(const Outside&) = delete;
  Outside& operator=(const Outside&) = delete;
};

}  // namespace tessaline::auth::http::process
