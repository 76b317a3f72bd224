#include "tessaline/auth/http/attempt.hpp"

#include <algorithm>
#include <climits>
#include <memory>
#include <new>
#include <string_view>

#include "tessaline/auth/http/process.hpp"

#ifndef TESSALINE_VERSION
#error "TESSALINE_VERSION must be given by the build"
#endif

namespace tessaline::auth::http {
namespace {

using Clock = std::chrono::steady_clock;

// Shorter than promised, so that a late wake-up is still in time.
constexpr std::chrono::milliseconds kTickInterval{150};
constexpr int kLongWaitMilliseconds = 10'000;
constexpr long kMaxConnectionAgeSeconds = 30;
constexpr std::size_t kLongestHeaderLine = 102'400;

bool announces_missing_body(std::string_view method) {
  return method == "POST" || method == "PUT" || method == "PATCH";
}

const char* text_or_null(const std::string& text) {
  return text.empty() ? nullptr : text.c_str();
}

// libcurl calls a header line beyond its bound "out of memory" as well. Throws where memory is short indeed.
void probe_memory() {
  static_cast<void>(std::make_unique<char[]>(2 * kLongestHeaderLine));
}

}  // namespace

Attempt::Attempt(Session& session, const Hop& hop) : session_(session), hop_(hop), easy_(curl_easy_init()) {
  if (!easy_) throw std::bad_alloc();
}

Attempt::~Attempt() {
  if (session_.belongs_to_this_process()) {
    curl_multi_remove_handle(session_.multi(), easy_.get());
  } else {
    static_cast<void>(easy_.release());
  }
}

void Attempt::prepare(const TrustStore& trust, const Deadline& deadline) {
  headers_ = make_header_list(hop_.headers);
  set_connection_options(deadline);
  set_trust_options(trust);
  set_request_options();
  set_callbacks();
}

template <typename Value>
void Attempt::set(CURLoption option, Value value) {
  require(curl_easy_setopt(easy_.get(), option, value));
}

void Attempt::use_fresh_connection() {
  set(CURLOPT_FRESH_CONNECT, 1L);
}

void Attempt::set_connection_options(const Deadline& deadline) {
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L);
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_FOLLOWLOCATION, 0L);
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_HTTP09_ALLOWED, 0L);
  set(CURLOPT_HTTP_CONTENT_DECODING, 0L);
  set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set(CURLOPT_TCP_NODELAY, 1L);
  set(CURLOPT_MAXAGE_CONN, kMaxConnectionAgeSeconds);
  // Its own bound on connecting would cut a request that has a longer one, or none.
  set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(INT_MAX));
  if (deadline.bounded()) set(CURLOPT_TIMEOUT_MS, static_cast<long>(deadline.left().count()));
}

void Attempt::set_trust_options(const TrustStore& trust) {
  set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  set(CURLOPT_CAINFO, text_or_null(trust.ca_file));
  set(CURLOPT_CAPATH, text_or_null(trust.ca_directory));
  set(CURLOPT_PROXY_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set(CURLOPT_PROXY_CAINFO, text_or_null(trust.ca_file));
  set(CURLOPT_PROXY_CAPATH, text_or_null(trust.ca_directory));
}

void Attempt::set_request_options() {
  set(CURLOPT_URL, hop_.url.text.c_str());
  set(CURLOPT_PATH_AS_IS, 1L);
  set(CURLOPT_CUSTOMREQUEST, hop_.method.c_str());
  set(CURLOPT_USERAGENT, "tessaline/" TESSALINE_VERSION);
  set(CURLOPT_HTTPHEADER, headers_.get());
  if (hop_.method == "HEAD" && hop_.body == nullptr) set(CURLOPT_NOBODY, 1L);
  if (hop_.body != nullptr) {
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(hop_.body->size()));
    set(CURLOPT_POSTFIELDS, hop_.body->data());
  } else if (announces_missing_body(hop_.method)) {
    set(CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t{0});
    set(CURLOPT_POSTFIELDS, "");
  }
}

void Attempt::set_callbacks() {
  require(session_.track_sockets_of(easy_.get()));
  set(CURLOPT_OPENSOCKETFUNCTION, &Attempt::on_open_socket);
  set(CURLOPT_OPENSOCKETDATA, this);
  set(CURLOPT_ERRORBUFFER, reason_.data());
  set(CURLOPT_HEADERFUNCTION, &Attempt::on_header);
  set(CURLOPT_HEADERDATA, this);
  set(CURLOPT_WRITEFUNCTION, &Attempt::on_body);
  set(CURLOPT_WRITEDATA, this);
}

bool Attempt::run(const Tick& tick) {
  require(curl_multi_add_handle(session_.multi(), easy_.get()));
  const CURLcode code = drive(tick);
  // Not "or": both are to be cleared.
  if (static_cast<unsigned>(session_.take_out_of_memory()) | static_cast<unsigned>(out_of_memory_)) {
    throw std::bad_alloc();
  }
  if ((code == CURLE_OK && head_.complete()) || head_was_all()) {
    response_.status = static_cast<int>(info(CURLINFO_RESPONSE_CODE));
    response_.headers = head_.take_fields();
    return true;
  }
  examine(code);
  return false;
}

// libcurl would send no body with NOBODY, and without it waits for one: such a request is stopped after the
// head.
bool Attempt::head_was_all() const noexcept {
  return hop_.method == "HEAD" && hop_.body != nullptr && head_.complete() && !head_.interim();
}

CURLcode Attempt::drive(const Tick& tick) {
  Clock::time_point next_tick = Clock::now() + kTickInterval;
  for (;;) {
    int running = 0;
    require(curl_multi_perform(session_.multi(), &running));
    if (running == 0) return result();
    if (!tick) {
      wait_for_activity(kLongWaitMilliseconds);
      continue;
    }
    const auto until_tick = std::chrono::ceil<std::chrono::milliseconds>(next_tick - Clock::now());
    if (until_tick.count() > 0) {
      wait_for_activity(static_cast<int>(until_tick.count()));
    } else {
      call(tick);
      next_tick = Clock::now() + kTickInterval;
    }
  }
}

void Attempt::wait_for_activity(int milliseconds) {
  CURLMcode code = CURLM_OK;
  {
    const process::Outside outside;
    code = curl_multi_poll(session_.multi(), nullptr, 0, milliseconds, nullptr);
  }
  require(code);
}

void Attempt::call(const Tick& tick) {
  bool go_on = false;
  {
    const process::Outside outside;
    go_on = tick();
  }
  if (!session_.belongs_to_this_process()) {
    throw TransportFailure(FailureKind::kReset, "connection to " + hop_.url.peer() + " was lost in a fork");
  }
  if (!go_on) {
    throw TransportFailure(FailureKind::kInterrupted, "request to " + hop_.url.peer() + " was interrupted");
  }
}

CURLcode Attempt::result() const {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(session_.multi(), &left)) {
    if (message->msg == CURLMSG_DONE) return message->data.result;
  }
  throw TransportFailure(FailureKind::kOther, "HTTP library ended a request without a result");
}

void Attempt::examine(CURLcode code) {
  // An answer that ends within its head is fine with libcurl.
  fault_.code = code == CURLE_OK ? CURLE_GOT_NOTHING : code;
  fault_.os_errno = info(CURLINFO_OS_ERRNO);
  fault_.proxy_status = info(CURLINFO_HTTP_CONNECTCODE);
  fault_.reason = reason_.front() != '\0' ? reason_.data() : curl_easy_strerror(code);
  fault_.answer_begun = head_.begun();
  fault_.head_complete = head_.complete();
  if (code == CURLE_OUT_OF_MEMORY) {
    if (!head_.begun() || head_.complete()) throw std::bad_alloc();
    probe_memory();
  }
  const bool broke = code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR || code == CURLE_GOT_NOTHING;
  lost_idle_connection_ =
      refused_to_reconnect_ || (broke && info(CURLINFO_NUM_CONNECTS) == 0 && !head_.begun());
}

long Attempt::info(CURLINFO which) const {
  long value = 0;
  require(curl_easy_getinfo(easy_.get(), which, &value));
  return value;
}

// libcurl replaces a kept connection that breaks by itself, and then tells of what happens to the new one in
// the words for the old. Another attempt does the same with words of its own.
bool Attempt::is_reconnecting() const noexcept {
  long sent = 0;
  return curl_easy_getinfo(easy_.get(), CURLINFO_REQUEST_SIZE, &sent) == CURLE_OK && sent > 0 &&
         !head_.begun();
}

curl_socket_t Attempt::on_open_socket(void* attempt, curlsocktype purpose, curl_sockaddr* address) noexcept {
  auto& self = *static_cast<Attempt*>(attempt);
  self.refused_to_reconnect_ = self.is_reconnecting();
  if (self.refused_to_reconnect_) return CURL_SOCKET_BAD;
  return Session::open_socket(&self.session_, purpose, address);
}

std::size_t Attempt::on_header(char* data, std::size_t size, std::size_t count, void* attempt) noexcept {
  auto& self = *static_cast<Attempt*>(attempt);
  try {
    const bool was_complete = self.head_.complete();
    if (!self.head_.add_line({data, size * count})) return 0;
    // A final answer after which libcurl asked again of itself.
    if (was_complete && !self.head_.complete()) self.response_.body.clear();
    return self.head_was_all() ? 0 : size * count;
  } catch (const std::bad_alloc&) {
    self.out_of_memory_ = true;
  } catch (const std::length_error&) {
    self.out_of_memory_ = true;
  }
  return 0;
}

// One piece of memory instead of ever larger ones, where the length is announced.
void Attempt::reserve_body() {
  curl_off_t length = 0;
  if (curl_easy_getinfo(easy_.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) != CURLE_OK) return;
  if (length > 0) response_.body.reserve(std::min(static_cast<std::size_t>(length), kMostBodyBytes));
}

std::size_t Attempt::on_body(char* data, std::size_t size, std::size_t count, void* attempt) noexcept {
  auto& self = *static_cast<Attempt*>(attempt);
  try {
    if (size * count > kMostBodyBytes - self.response_.body.size()) {
      self.fault_.body_too_large = true;
      return 0;
    }
    if (self.response_.body.empty()) self.reserve_body();
    self.response_.body.append(data, size * count);
    return size * count;
  } catch (const std::bad_alloc&) {
    self.out_of_memory_ = true;
  } catch (const std::length_error&) {
    self.out_of_memory_ = true;
  }
  return 0;
}

}  // namespace tessaline::auth::http
