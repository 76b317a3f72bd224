#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "check.hpp"
#include "tessaline/auth/http/text.hpp"

namespace tessaline::fuzz {

struct ScriptedAnswer {
  std::string bytes;
  bool ends_connection = true;
};

/// A loopback server on one thread that sends the responses in turn, whatever the request, and then closes
/// all connections. Lives as long as the process.
class ScriptedServer {
 public:
  ScriptedServer() {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t size = sizeof address_;
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address_);
    CHECK(bind(listener_, generic, size) == 0 && listen(listener_, 64) == 0);
    CHECK(getsockname(listener_, generic, &size) == 0);
    CHECK(pipe(wake_) == 0);
    std::thread([this] { serve(); }).detach();
  }

  const sockaddr_in& address() const { return address_; }

  void begin(std::deque<ScriptedAnswer> answers) {
    const std::lock_guard lock(mutex_);
    answers_ = std::move(answers);
    heads_.clear();
  }

  /// Closes every connection, and returns the heads of the requests since begin().
  std::vector<std::string> end() {
    std::unique_lock lock(mutex_);
    ending_ = true;
    CHECK(write(wake_[1], "", 1) == 1);
    ended_.wait(lock, [this] { return !ending_; });
    return std::move(heads_);
  }

 private:
  struct Peer {
    int descriptor;
    std::string pending;
    bool left_waiting = false;  // by a response that may have been incomplete
  };

  // A response that leaves the peer waiting is cut off after this time.
  static constexpr int kLongestSilence = 10;

  void serve() {
    for (;;) {
      std::vector<pollfd> waiting = {{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
      bool left_waiting = false;
      for (const Peer& peer : peers_) {
        waiting.push_back({peer.descriptor, POLLIN, 0});
        left_waiting |= peer.left_waiting;
      }
      const int ready = poll(waiting.data(), waiting.size(), left_waiting ? kLongestSilence : -1);
      if (ready == 0) close_all();
      if (ready <= 0) continue;
      for (std::size_t i = peers_.size(); i-- > 0;) {
        if (waiting.at(i + 2).revents != 0 && !hear(peers_[i])) drop(i);
      }
      if (waiting[1].revents != 0) peers_.push_back({accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC), {}});
      if (waiting[0].revents != 0) finish();
    }
  }

  void drop(std::size_t index) {
    close(peers_[index].descriptor);
    peers_.erase(peers_.begin() + static_cast<std::ptrdiff_t>(index));
  }

  void close_all() {
    while (!peers_.empty()) drop(peers_.size() - 1);
  }

  void finish() {
    char byte = 0;
    CHECK(read(wake_[0], &byte, 1) == 1);
    close_all();
    const std::lock_guard lock(mutex_);
    ending_ = false;
    ended_.notify_all();
  }

  /// False if the connection must be closed.
  bool hear(Peer& peer) {
    char bytes[16384];
    const ssize_t count = recv(peer.descriptor, bytes, sizeof bytes, 0);
    if (count <= 0) return false;
    peer.left_waiting = false;
    peer.pending.append(bytes, static_cast<std::size_t>(count));
    while (has_request(peer.pending)) {
      if (!answer(peer)) return false;
    }
    return true;
  }

  static std::size_t body_length(std::string_view head) {
    const std::string lower = auth::http::lower_case(head);
    constexpr std::string_view kName = "\r\ncontent-length:";
    const auto at = lower.find(kName);
    return at == std::string::npos ? 0 : std::strtoul(lower.c_str() + at + kName.size(), nullptr, 10);
  }

  static bool is_handshake(std::string_view bytes) { return bytes.starts_with('\x16'); }

  static bool has_request(std::string_view bytes) {
    if (is_handshake(bytes)) return true;
    const auto end = bytes.find("\r\n\r\n");
    return end != std::string_view::npos && bytes.size() >= end + 4 + body_length(bytes.substr(0, end));
  }

  bool answer(Peer& peer) {
    ScriptedAnswer given;
    {
      const std::lock_guard lock(mutex_);
      if (is_handshake(peer.pending)) {
        peer.pending.clear();
      } else {
        const auto end = peer.pending.find("\r\n\r\n") + 4;
        heads_.push_back(peer.pending.substr(0, end));
        peer.pending.erase(0, end + body_length(heads_.back()));
      }
      if (answers_.empty()) return false;
      given = std::move(answers_.front());
      answers_.pop_front();
    }
    std::string_view left = given.bytes;
    while (!left.empty()) {
      const ssize_t sent = send(peer.descriptor, left.data(), left.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      left.remove_prefix(static_cast<std::size_t>(sent));
    }
    peer.left_waiting = true;
    return !given.ends_connection;
  }

  int listener_ = -1;
  int wake_[2] = {-1, -1};
  sockaddr_in address_{};
  std::vector<Peer> peers_;  // used by the thread only
  std::mutex mutex_;
  std::condition_variable ended_;
  std::deque<ScriptedAnswer> answers_;
  std::vector<std::string> heads_;
  bool ending_ = false;
};

}  // namespace tessaline::fuzz
