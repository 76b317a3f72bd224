// A hostile server against the HTTP client: the first byte selects the request, the rest are the bytes of the
// responses, each ended by 0x01 (the connection stays) or 0x02 (it is closed). Every connection, to any host,
// leads to one server on the loopback device.

#include <dlfcn.h>
#include <netdb.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "check.hpp"
#include "input.hpp"
#include "scripted_server.hpp"
#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/text.hpp"

namespace tessaline::fuzz {
namespace {

using auth::http::FailureKind;
using auth::http::Request;
using auth::http::Response;
using auth::http::TransportFailure;

constexpr std::string_view kHidden = "nobody-is-told-of-this";
constexpr std::size_t kMostRequests = 64;
constexpr std::chrono::seconds kDeadline{5};

ScriptedServer& server() {
  static auto* const kServer = new ScriptedServer;
  return *kServer;
}

std::deque<ScriptedAnswer> answers_in(Input& input) {
  std::deque<ScriptedAnswer> answers(1);
  while (!input.empty()) {
    const char c = input.take(1).front();
    if (c == '\x01' || c == '\x02') {
      answers.back().ends_connection = c == '\x02';
      answers.emplace_back();
    } else {
      answers.back().bytes += c;
    }
  }
  return answers;
}

Request chosen_request(std::uint8_t choice) {
  static constexpr std::array<const char*, 5> kMethods = {"POST", "GET", "HEAD", "PUT", "DELETE"};
  Request request;
  request.method = kMethods.at(choice % kMethods.size());
  request.url = std::string("http://start.test/").append(kHidden).append("?").append(kHidden);
  request.headers = {{"Authorization", std::string(kHidden)}, {"Content-Type", "application/json"}};
  if ((choice & 0x80U) == 0) request.body = "{}";
  request.timeout = kDeadline;
  return request;
}

void check_response(const Response& response, std::size_t most_bytes) {
  CHECK(response.status >= 0 && response.status <= 999);
  CHECK(response.body.size() <= most_bytes);
  std::set<std::string> names;
  for (const auto& [name, value] : response.headers) {
    CHECK(names.insert(auth::http::lower_case(name)).second);
    CHECK(value.find('\n') == std::string::npos);
  }
}

void check_failure(const TransportFailure& failure) {
  CHECK(failure.kind() != FailureKind::kInvalidRequest && failure.kind() != FailureKind::kInterrupted);
  CHECK(std::string_view(failure.what()).find(kHidden) == std::string_view::npos);
}

void check_requests(const std::vector<std::string>& heads, const Request& request) {
  CHECK(!heads.empty() && heads.size() <= kMostRequests);
  CHECK(heads.front().starts_with(request.method + " /"));
  for (const std::string& head : heads) {
    const bool at_start = head.find("\r\nHost: start.test\r\n") != std::string::npos;
    const bool hidden = head.find(kHidden) != std::string::npos;
    CHECK(at_start || !hidden);
    for (const char c : head) CHECK(c == '\r' || c == '\n' || (c >= ' ' && c < '\x7f'));
  }
}

void run(Input input) {
  const Request request = chosen_request(input.byte());
  auto answers = answers_in(input);
  std::size_t most_bytes = 0;
  for (const auto& answer : answers) {
    // The server must not know the hidden text, or finding it would prove nothing.
    if (answer.bytes.find(kHidden) != std::string::npos) return;
    most_bytes += answer.bytes.size();
  }
  server().begin(std::move(answers));
  const auto begun = std::chrono::steady_clock::now();
  try {
    check_response(auth::http::perform(request), most_bytes);
  } catch (const TransportFailure& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    check_failure(failure);
  }
  CHECK(std::chrono::steady_clock::now() - begun < kDeadline);
  check_requests(server().end(), request);
}

template <typename Function>
Function* next_of(const char* name, Function*) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace
}  // namespace tessaline::fuzz

// The HTTP library calls these instead of the system's, so that nothing leaves this machine.

extern "C" [[gnu::visibility("default")]] int connect(int descriptor, const sockaddr* address,
                                                      socklen_t size) {
  static const auto kConnect = tessaline::fuzz::next_of("connect", &connect);
  if (address->sa_family == AF_INET) {
    const sockaddr_in& own = tessaline::fuzz::server().address();
    return kConnect(descriptor, reinterpret_cast<const sockaddr*>(&own), sizeof own);
  }
  if (address->sa_family == AF_UNIX) return kConnect(descriptor, address, size);
  errno = ECONNREFUSED;
  return -1;
}

extern "C" [[gnu::visibility("default")]] int getaddrinfo(const char*, const char* service,
                                                          const addrinfo* hints, addrinfo** result) {
  static const auto kGetaddrinfo = tessaline::fuzz::next_of("getaddrinfo", &getaddrinfo);
  addrinfo numeric = *hints;
  numeric.ai_family = AF_INET;
  numeric.ai_flags = AI_NUMERICHOST;
  return kGetaddrinfo("127.0.0.1", service, &numeric, result);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTPS_PROXY", "ALL_PROXY"})
    unsetenv(name);
  tessaline::fuzz::run({data, size});
  return 0;
}
