#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/text.hpp"

namespace tessaline::auth::http::testing {

/// A request as received.
struct WireRequest {
  std::string head;  ///< with the empty line
  std::string body;

  std::string line() const { return head.substr(0, head.find("\r\n")); }

  /// All values of one field, without surrounding spaces.
  std::vector<std::string> values(std::string_view name) const {
    std::vector<std::string> found;
    for (std::size_t begin = head.find("\r\n") + 2; begin < head.size();) {
      const auto end = head.find("\r\n", begin);
      const auto field = std::string_view(head).substr(begin, end - begin);
      const auto colon = field.find(':');
      if (colon != std::string_view::npos && equal_without_case(field.substr(0, colon), name)) {
        found.emplace_back(trim_blanks(field.substr(colon + 1)));
      }
      begin = end + 2;
    }
    return found;
  }

  std::string value(std::string_view name) const {
    const auto found = values(name);
    return found.empty() ? "(absent)" : found.front();
  }
};

/// How many times as long as usual programs take: TESSALINE_SLOWER, which is set for an emulator.
inline int slower() {
#ifdef TESSALINE_SANITIZED
  constexpr int kUsual = 6;
#else
  constexpr int kUsual = 1;
#endif
  const char* const times = std::getenv("TESSALINE_SLOWER");
  return times == nullptr ? kUsual : std::max(std::atoi(times), 1);
}

inline const std::chrono::milliseconds kPatience{5000 * slower()};

/// The server's end of one connection. No wait here is longer than kPatience.
class Connection {
 public:
  Connection(int descriptor, int index) : descriptor_(descriptor), index_(index) {}
  ~Connection() { close(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int index() const { return index_; }
  int descriptor() const { return descriptor_; }

  /// False at the end of the connection.
  bool read_request(WireRequest& request) {
    std::size_t end = 0;
    while ((end = pending_.find("\r\n\r\n")) == std::string::npos) {
      if (!receive()) return false;
    }
    request.head = pending_.substr(0, end + 4);
    pending_.erase(0, end + 4);
    std::size_t length = 0;
    const std::string announced = request.value("Content-Length");
    std::from_chars(announced.data(), announced.data() + announced.size(), length);
    while (pending_.size() < length) {
      if (!receive()) return false;
    }
    request.body = pending_.substr(0, length);
    pending_.erase(0, length);
    return true;
  }

  bool read_bytes(std::size_t count) {
    while (pending_.size() < count) {
      if (!receive()) return false;
    }
    return true;
  }

  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      pollfd waiting{descriptor_, POLLOUT, 0};
      if (poll(&waiting, 1, static_cast<int>(kPatience.count())) <= 0) return false;
      const ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }

  /// Whether the peer closed within that time.
  bool closed_within(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    for (;;) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
      if (left <= 0) return false;
      if (!receive(static_cast<int>(left)) && ended_) return true;
    }
  }

  void close() {
    const std::lock_guard lock(mutex_);
    if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
  }

  /// Ends every wait; from another thread.
  void interrupt() {
    const std::lock_guard lock(mutex_);
    if (descriptor_ >= 0) shutdown(descriptor_, SHUT_RDWR);
  }

  void reset() {
    const linger now{1, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    close();
  }

 private:
  bool receive(int milliseconds = static_cast<int>(kPatience.count())) {
    pollfd waiting{descriptor_, POLLIN, 0};
    if (descriptor_ < 0 || poll(&waiting, 1, milliseconds) <= 0) return false;
    char bytes[16384];
    const ssize_t count = recv(descriptor_, bytes, sizeof bytes, 0);
    if (count <= 0) {
      ended_ = true;
      return false;
    }
    pending_.append(bytes, static_cast<std::size_t>(count));
    return true;
  }

  std::mutex mutex_;
  int descriptor_;
  int index_;
  bool ended_ = false;
  std::string pending_;
};

using Script = std::function<void(Connection&)>;

/// Listens on a free port and runs the script for each connection, on a thread of its own.
class LoopbackServer {
 public:
  explicit LoopbackServer(Script script) : script_(std::move(script)) {
    for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTPS_PROXY", "ALL_PROXY"})
      unsetenv(name);
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener_, generic, size) != 0 || listen(listener_, 64) != 0 ||
        getsockname(listener_, generic, &size) != 0) {
      throw std::runtime_error("no loopback server");
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { accept_all(); });
  }

  ~LoopbackServer() {
    stopping_ = true;
    shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    for (auto& served : served_) served->connection.interrupt();
    for (auto& served : served_) served->thread.join();
    ::close(listener_);
  }

  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  int port() const { return port_; }
  int accepted() const { return accepted_; }
  std::string peer() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string url(const std::string& path = "/") const { return "http://" + peer() + path; }

 private:
  struct Served {
    Served(int descriptor, int index) : connection(descriptor, index) {}
    Connection connection;
    std::thread thread;
  };

  void accept_all() {
    while (!stopping_) {
      const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (descriptor < 0) continue;
      served_.push_back(std::make_unique<Served>(descriptor, accepted_++));
      Served& served = *served_.back();
      served.thread = std::thread([this, &served] {
        script_(served.connection);
        served.connection.close();
      });
    }
  }

  Script script_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<int> accepted_ = 0;
  std::atomic<bool> stopping_ = false;
  std::vector<std::unique_ptr<Served>> served_;  // the acceptor's until it has ended
  std::thread acceptor_;
};

/// Sends for each request of each connection what the function returns, and records the requests.
class AnsweringServer {
 public:
  using Answer = std::function<std::string(const WireRequest&)>;

  explicit AnsweringServer(Answer answer)
      : answer_(std::move(answer)), server_([this](Connection& connection) { serve(connection); }) {}
  explicit AnsweringServer(std::string answer)
      : AnsweringServer([answer = std::move(answer)](const WireRequest&) { return answer; }) {}

  LoopbackServer* operator->() { return &server_; }

  std::vector<WireRequest> requests() {
    const std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  void serve(Connection& connection) {
    for (WireRequest request; connection.read_request(request);) {
      {
        const std::lock_guard lock(mutex_);
        requests_.push_back(request);
      }
      if (!connection.send(answer_(request))) return;
    }
  }

  Answer answer_;
  std::mutex mutex_;
  std::vector<WireRequest> requests_;
  LoopbackServer server_;
};

/// A response of known length, so that the connection stays usable.
inline std::string answer_of(int status, const std::string& body = "", const std::string& fields = "") {
  return "HTTP/1.1 " + std::to_string(status) + " Reason\r\n" + fields +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

inline Request request_for(std::string url, std::string method = "GET") {
  Request request;
  request.method = std::move(method);
  request.url = std::move(url);
  request.timeout = kPatience;
  return request;
}

struct Caught {
  FailureKind kind;
  std::string message;
};

/// The failure of a request that must fail.
inline Caught failure_of(const Request& request, const Tick& tick = {}) {
  try {
    const Response response = perform(request, tick);
    ADD_FAILURE() << "expected a failure, got status " << response.status;
  } catch (const TransportFailure& failure) {
    return {failure.kind(), failure.what()};
  }
  return {FailureKind::kOther, "(no failure)"};
}

inline std::string header_of(const Response& response, std::string_view name) {
  for (const auto& [field, value] : response.headers) {
    if (field == name) return value;
  }
  return "(absent)";
}

}  // namespace tessaline::auth::http::testing
