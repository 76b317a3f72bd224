#pragma once

#include <mutex>

/// What a process that uses libcurl needs once: initialisation, fork handlers and an exit handler.
namespace tessaline::auth::http::process {

/// Guards the session pool and every session's list of sockets. Held across a fork. Never held during a
/// libcurl call that may run a callback.
std::mutex& mutex() noexcept;

/// The user of `http/` calls these around each fork, on the forking thread, from before its first request:
/// handlers that are registered during a fork do not run for that fork. Calls for one fork may be nested.
void before_fork() noexcept;
void after_fork_in_parent() noexcept;
void after_fork_in_child() noexcept;

/// The number of forks between this process and the first one. What was made under another number belongs to
/// a parent process.
unsigned long generation() noexcept;

/// The calling thread is inside libcurl. A fork waits until no thread is, so that the child inherits no
/// locked mutex of libcurl or OpenSSL. The exit waits briefly too, before their globals are destroyed.
/// Threads that enter while the process exits are parked for ever.
///
/// Initialises libcurl at the first use; throws std::bad_alloc or TransportFailure if that fails.
class Inside {
 public:
  Inside();
  ~Inside();
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
};

/// Leaves libcurl for a while, to wait or to run foreign code.
class Outside {
 public:
  Outside() noexcept;
  ~Outside();
  Outside(const Outside&) = delete;
  Outside& operator=(const Outside&) = delete;
};

}  // namespace tessaline::auth::http::process
