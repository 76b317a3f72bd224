#pragma once

#include <mutex>

/// What a process that uses libcurl must care for once: its start, its forks and its exit.
namespace tessaline::auth::http::process {

/// Guards the session pool and every session's list of sockets. Held across a fork. No libcurl call that can
/// run a callback is made under it.
std::mutex& mutex() noexcept;

/// Who uses this room calls these around each fork of the process, on the thread that forks, from before the
/// first request on: registered later, a fork that is under way already would not run them. For one fork they
/// may be called several times, nested.
void before_fork() noexcept;
void after_fork_in_parent() noexcept;
void after_fork_in_child() noexcept;

/// How many forks lie between this process and the first one. What was made under another number belongs to a
/// parent process.
unsigned long generation() noexcept;

/// The calling thread is inside libcurl. A fork waits until nobody is, so that no lock of libcurl or OpenSSL
/// is held in the child by a thread that is not there; so does the exit, for a moment, before their globals
/// are torn down. Who comes in while the process is exiting is parked for ever.
///
/// Sets libcurl up on first use; throws std::bad_alloc or TransportFailure when that fails.
class Inside {
 public:
  Inside();
  ~Inside();
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
};

/// The calling thread, otherwise inside, waits or runs foreign code for a while.
class Outside {
 public:
  Outside() noexcept;
  ~Outside();
  Outside(const Outside&) = delete;
  Outside& operator=(const Outside&) = delete;
};

}  // namespace tessaline::auth::http::process
