// A server that accepts every login at little cost: one thread per connection, prepared responses.
//
//   bench_server DELAY_MILLISECONDS [CERTIFICATE_PEM KEY_PEM]
//
// Prints its port on the first line, serves until its standard input ends. Every response is sent after the
// delay. GET /count returns how many connections were accepted and exchanges completed; POST /era/N makes
// later tokens of era N; POST /body/N returns N bytes; with the prefix /refuse, verify returns 401.

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace {

std::chrono::milliseconds delay{0};
std::atomic<long> connections{0};
std::atomic<long> exchanges{0};
std::atomic<long> era{1};

class Stream {
 public:
  Stream(int socket, SSL_CTX* tls) : socket_(socket), tls_(tls == nullptr ? nullptr : SSL_new(tls)) {
    if (tls_) SSL_set_fd(tls_.get(), socket);
  }
  ~Stream() { close(socket_); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  bool open() { return !tls_ || SSL_accept(tls_.get()) == 1; }

  bool read_more(std::string& text) {
    std::array<char, 16384> chunk{};
    const int count = tls_ ? SSL_read(tls_.get(), chunk.data(), static_cast<int>(chunk.size()))
                           : static_cast<int>(recv(socket_, chunk.data(), chunk.size(), 0));
    if (count <= 0) return false;
    text.append(chunk.data(), static_cast<std::size_t>(count));
    return true;
  }

  bool write_all(std::string_view text) {
    while (!text.empty()) {
      const int size = static_cast<int>(std::min<std::size_t>(text.size(), 1U << 20U));
      const int count = tls_
                            ? SSL_write(tls_.get(), text.data(), size)
                            : static_cast<int>(send(socket_, text.data(), static_cast<std::size_t>(size), 0));
      if (count <= 0) return false;
      text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }

 private:
  struct Free {
    void operator()(SSL* tls) const { SSL_free(tls); }
  };

  int socket_;
  std::unique_ptr<SSL, Free> tls_;
};

std::string base64url(std::string_view bytes) {
  constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string text;
  unsigned bits = 0;
  int held = 0;
  for (const char byte : bytes) {
    bits = bits << 8U | static_cast<unsigned char>(byte);
    held += 8;
    while (held >= 6) {
      held -= 6;
      text += kDigits[bits >> static_cast<unsigned>(held) & 63U];
    }
  }
  if (held > 0) text += kDigits[bits << static_cast<unsigned>(6 - held) & 63U];
  return text;
}

// The text of the first member of that name; no more JSON is needed here.
std::string text_member(const std::string& body, const std::string& name) {
  const std::size_t label = body.find("\"" + name + "\"");
  if (label == std::string::npos) return {};
  const std::size_t begin = body.find('"', body.find(':', label)) + 1;
  return body.substr(begin, body.find('"', begin) - begin);
}

std::string token_for(const std::string& wallet) {
  const std::string claims = R"({"sub":")" + wallet + R"(","era_number":)" + std::to_string(era) + "}";
  return base64url(R"({"alg":"none"})") + "." + base64url(claims) + "." + base64url("signature");
}

std::string with_head(std::string_view status, const std::string& body) {
  return "HTTP/1.1 " + std::string(status) +
         "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         body;
}

std::string answer(std::string path, const std::string& body) {
  const bool refusing = path.starts_with("/refuse");
  if (refusing) path.erase(0, std::strlen("/refuse"));
  if (path == "/auth/challenge") {
    // The challenge contains its wallet, so that the verification needs no state.
    return with_head("200 OK", R"({"challenge_id":")" + text_member(body, "wallet_address") +
                                   R"(","message":"Sign in to the benchmark, nonce 0123456789abcdef"})");
  }
  if (path == "/auth/verify" && refusing) return with_head("401 Unauthorized", "{}");
  if (path == "/auth/verify") {
    return with_head("200 OK", R"({"token":")" + token_for(text_member(body, "challenge_id")) +
                                   R"(","expires_at":4102444800,"wallet_secret":"c2VjcmV0"})");
  }
  if (path.starts_with("/era/")) era = std::atol(path.c_str() + 5);
  if (path == "/count") {
    return with_head("200 OK", R"({"connections":)" + std::to_string(connections) + R"(,"exchanges":)" +
                                   std::to_string(exchanges) + "}");
  }
  return with_head("200 OK", "{}");
}

// Made once for each connection and size, so that a repeated request costs only the client's part and the
// copy.
const std::string& large_answer(std::size_t size) {
  thread_local std::size_t made = 0;
  thread_local std::string answer;
  if (made != size || answer.empty()) answer = with_head("200 OK", std::string(size, 'b'));
  made = size;
  return answer;
}

std::size_t content_length(std::string_view head) {
  constexpr std::string_view kName = "\r\ncontent-length:";
  const auto same = [](char one, char other) {
    return std::tolower(static_cast<unsigned char>(one)) == other;
  };
  const auto found = std::search(head.begin(), head.end(), kName.begin(), kName.end(), same);
  if (found == head.end()) return 0;
  return static_cast<std::size_t>(std::atol(&*found + kName.size()));
}

// Takes one request from the front of `text`; false if the peer has disconnected.
bool read_request(Stream& stream, std::string& text, std::string& path, std::string& body) {
  std::size_t head = std::string::npos;
  while ((head = text.find("\r\n\r\n")) == std::string::npos) {
    if (!stream.read_more(text)) return false;
  }
  const std::size_t whole = head + 4 + content_length(std::string_view(text).substr(0, head));
  while (text.size() < whole) {
    if (!stream.read_more(text)) return false;
  }
  const std::size_t begin = text.find(' ') + 1;
  path = text.substr(begin, text.find(' ', begin) - begin);
  body = text.substr(head + 4, whole - head - 4);
  text.erase(0, whole);
  return true;
}

void serve(int socket, SSL_CTX* tls) {
  Stream stream(socket, tls);
  if (!stream.open()) return;
  std::string text;
  std::string path;
  std::string body;
  while (read_request(stream, text, path, body)) {
    if (delay.count() > 0) std::this_thread::sleep_for(delay);
    if (path != "/count") ++exchanges;
    const bool written =
        path.starts_with("/body/")
            ? stream.write_all(large_answer(static_cast<std::size_t>(std::atol(path.c_str() + 6))))
            : stream.write_all(answer(path, body));
    if (!written) return;
  }
}

SSL_CTX* tls_from(const char* certificate, const char* key) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  if (context == nullptr || SSL_CTX_use_certificate_chain_file(context, certificate) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, key, SSL_FILETYPE_PEM) != 1) {
    std::fputs("bench_server: the certificate or its key cannot be used\n", stderr);
    std::exit(1);
  }
  return context;
}

int listening_socket() {
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (socket < 0 || bind(socket, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      listen(socket, 4096) != 0 || getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    std::perror("bench_server");
    std::exit(1);
  }
  std::printf("%d\n", ntohs(address.sin_port));
  std::fflush(stdout);
  return socket;
}

void end_with_standard_input() {
  std::thread([] {
    while (std::getchar() != EOF) {
    }
    std::_Exit(0);
  }).detach();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) {
    std::fputs("usage: bench_server DELAY_MILLISECONDS [CERTIFICATE_PEM KEY_PEM]\n", stderr);
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  delay = std::chrono::milliseconds(std::atol(argv[1]));
  SSL_CTX* tls = argc == 4 ? tls_from(argv[2], argv[3]) : nullptr;
  const int listener = listening_socket();
  end_with_standard_input();
  for (;;) {
    const int socket = accept(listener, nullptr, nullptr);
    if (socket < 0) continue;
    ++connections;
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::thread(serve, socket, tls).detach();
  }
}
