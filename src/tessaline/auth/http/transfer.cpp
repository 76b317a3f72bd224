#include "tessaline/auth/http/transfer.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string_view>

#include "tessaline/auth/http/descriptors.hpp"
#include "tessaline/auth/http/failure_table.hpp"
#include "tessaline/auth/http/limits.hpp"
#include "tessaline/auth/http/process.hpp"
#include "tessaline/auth/http/tls_context.hpp"

#ifndef TESSALINE_VERSION
#error "TESSALINE_VERSION must be given by the build"
#endif

namespace tessaline::auth::http {
namespace {

constexpr const char* kUserAgent = "tessaline/" TESSALINE_VERSION;

bool announces_missing_body(std::string_view method) {
  return method == "POST" || method == "PUT" || method == "PATCH";
}

const char* text_or_null(const std::string& text) {
  return text.empty() ? nullptr : text.c_str();
}

}  // namespace

Transfer::Transfer(Session& session, const Hop& hop, const Route& route)
    : session_(session), hop_(hop), route_(route), easy_(curl_easy_init()) {
  if (!easy_) throw std::bad_alloc();
}

Transfer::~Transfer() {
  if (session_.belongs_to_this_process()) {
    curl_multi_remove_handle(session_.multi(), easy_.get());
  } else {
    static_cast<void>(easy_.release());
  }
}

void Transfer::prepare(const Deadline& deadline) {
  headers_ = make_header_list(hop_.headers);
  set_connection_options(deadline);
  set_proxy_options();
  if (route_.trust) set_trust_options();
  set_request_options();
  set_callbacks();
}

template <typename Value>
void Transfer::set(CURLoption option, Value value) {
  require(curl_easy_setopt(easy_.get(), option, value));
}

void Transfer::set_connection_options(const Deadline& deadline) {
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L);
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_FOLLOWLOCATION, 0L);
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_HTTP09_ALLOWED, 0L);
  set(CURLOPT_HTTP_CONTENT_DECODING, 0L);
  set(CURLOPT_HTTP_TRANSFER_DECODING, 0L);
  set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set(CURLOPT_TCP_NODELAY, 1L);
  set(CURLOPT_MAXAGE_CONN, kCurlIdleSeconds);
  // libcurl's default would end a request with a longer time-out, or with none.
  set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(INT_MAX));
  if (deadline.bounded()) set(CURLOPT_TIMEOUT_MS, static_cast<long>(deadline.left().count()));
}

// Decided here: how libcurl treats the environment differs between versions, and it does not report it.
void Transfer::set_proxy_options() {
  set(CURLOPT_PROXY, route_.proxy ? route_.proxy->url.c_str() : "");
  set(CURLOPT_NOPROXY, "");
}

void Transfer::set_trust_options() {
  const TrustStore& places = route_.trust->places();
  // If OpenSSL is shared, each connection gets a store with the roots.
  const char* const file = tls_is_shared() ? nullptr : text_or_null(places.ca_file);
  const char* const directory = tls_is_shared() ? nullptr : text_or_null(places.ca_directory);
  set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  set(CURLOPT_CAINFO, file);
  set(CURLOPT_CAPATH, directory);
  set(CURLOPT_PROXY_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set(CURLOPT_PROXY_SSL_VERIFYPEER, 1L);
  set(CURLOPT_PROXY_SSL_VERIFYHOST, 2L);
  set(CURLOPT_PROXY_CAINFO, file);
  set(CURLOPT_PROXY_CAPATH, directory);
  set(CURLOPT_CA_CACHE_TIMEOUT, 0L);
  // libcurl would cache sessions by the name of the file of roots, whatever its content.
  set(CURLOPT_SSL_SESSIONID_CACHE, 0L);
  if (!tls_is_shared()) return;
  set(CURLOPT_SSL_CTX_FUNCTION, &Transfer::on_tls_context);
  set(CURLOPT_SSL_CTX_DATA, this);
}

void Transfer::set_request_options() {
  const bool by_plain_proxy = route_.proxy && route_.proxy->speaks_http() && hop_.url.scheme == "http";
  const std::string target = hop_.url.target();
  set(CURLOPT_URL, hop_.url.root().c_str());
  // Otherwise libcurl normalises the path.
  set(CURLOPT_REQUEST_TARGET, by_plain_proxy ? (hop_.url.root() + target).c_str() : target.c_str());
  set(CURLOPT_CUSTOMREQUEST, hop_.method.c_str());
  set(CURLOPT_USERAGENT, hop_.user_agent.empty() ? kUserAgent : hop_.user_agent.c_str());
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

void Transfer::set_callbacks() {
  require(session_.track_sockets_of(easy_.get()));
  set(CURLOPT_OPENSOCKETFUNCTION, &Transfer::on_open_socket);
  set(CURLOPT_OPENSOCKETDATA, this);
  set(CURLOPT_HEADERFUNCTION, &Transfer::on_header);
  set(CURLOPT_HEADERDATA, this);
  set(CURLOPT_WRITEFUNCTION, &Transfer::on_body);
  set(CURLOPT_WRITEDATA, this);
}

bool Transfer::run(Ticker& ticker) {
  session_.begin_request();
  {
    const std::lock_guard lock(process::mutex());
    had_connection_ = session_.has_connection();
  }
  require(curl_multi_add_handle(session_.multi(), easy_.get()));
  const CURLcode code = drive(ticker);
  if (session_.ran_out_of_memory() || out_of_memory_) throw std::bad_alloc();
  response_.status = static_cast<int>(info(CURLINFO_RESPONSE_CODE));
  response_.headers = head_.take_fields();
  const bool answered =
      has_final_head() && (code == CURLE_OK || head_was_all() || ended_with_connection(code));
  if (!answered) examine(code);
  if (route_.trust) end_lingering();
  return answered;
}

// Since 8.0, libcurl keeps a TLS connection that it will not use again until the peer sends close_notify.
void Transfer::end_lingering() {
  curl_socket_t kept = CURL_SOCKET_BAD;
  require(curl_easy_getinfo(easy_.get(), CURLINFO_ACTIVESOCKET, &kept));
  if (kept != CURL_SOCKET_BAD || !session_.shut_down()) return;
  int running = 0;
  require(curl_multi_perform(session_.multi(), &running));
}

// With NOBODY libcurl sends no body, and without it waits for one: such a request is stopped after the head.
bool Transfer::head_was_all() const noexcept {
  return hop_.method == "HEAD" && hop_.body != nullptr && has_final_head();
}

bool Transfer::has_final_head() const noexcept {
  return head_.complete() && !head_.interim();
}

// A body that ends with its connection may end without close_notify, as in Python's own client; libcurl
// reports that as an error since 8.0.
bool Transfer::ended_with_connection(CURLcode code) const {
  const bool to_the_end = !head_.chunked() && !head_.has_length();
  if (code != CURLE_RECV_ERROR || !to_the_end || hop_.url.scheme != "https") return false;
  const long os_errno = info(CURLINFO_OS_ERRNO);
  return session_.tls.sight.fatal_alert < 0 && os_errno != ECONNRESET && os_errno != EPIPE;
}

CURLcode Transfer::drive(Ticker& ticker) {
  for (;;) {
    int running = 0;
    require(curl_multi_perform(session_.multi(), &running));
    if (running == 0) return result();
    wait_for_activity(ticker.until_due());
    ticker.call_if_due();
  }
}

void Transfer::wait_for_activity(std::chrono::milliseconds longest) {
  CURLMcode code = CURLM_OK;
  {
    const process::Outside outside;
    code = curl_multi_poll(session_.multi(), nullptr, 0, static_cast<int>(longest.count()), nullptr);
  }
  require(code);
}

CURLcode Transfer::result() const {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(session_.multi(), &left)) {
    if (message->msg == CURLMSG_DONE) return message->data.result;
  }
  throw TransportFailure(FailureKind::kOther, "HTTP library ended a request without a result");
}

void Transfer::examine(CURLcode code) {
  // libcurl accepts a response that ends within its head.
  fault_.code = code == CURLE_OK ? CURLE_GOT_NOTHING : code;
  fault_.os_errno = info(CURLINFO_OS_ERRNO);
  fault_.open_errno = session_.open_errno();
  fault_.proxy_status = info(CURLINFO_HTTP_CONNECTCODE);
  fault_.proxy_error = info(CURLINFO_PROXY_ERROR);
  fault_.answer_begun = head_.begun();
  fault_.head_complete = has_final_head();
  fault_.over_tls = hop_.url.scheme == "https";
  fault_.tunnelled = is_tunnelled();
  fault_.proxy = route_.proxy;
  fault_.remains = session_.remains();
  fault_.tls = session_.tls.sight;
  // A DNS lookup needs descriptors too, and does not report that it got none.
  const bool unresolved = code == CURLE_COULDNT_RESOLVE_HOST || code == CURLE_COULDNT_RESOLVE_PROXY;
  if (unresolved && fault_.open_errno == 0) fault_.open_errno = descriptor_shortage();
  // libcurl also reports this for a header line above its limit.
  if (code == CURLE_OUT_OF_MEMORY && !holds(Seen::kLongLine, fault_)) throw std::bad_alloc();
  const bool broke = code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR || code == CURLE_GOT_NOTHING;
  lost_idle_connection_ = refused_to_reconnect_ || (broke && had_connection_ && !head_.begun());
}

// Whether it failed after a proxy had connected to the server.
bool Transfer::is_tunnelled() const {
  if (!route_.proxy) return false;
  if (route_.proxy->speaks_http()) return info(CURLINFO_HTTP_CONNECTCODE) / 100 == 2;
  return session_.tls.sight.started || info(CURLINFO_REQUEST_SIZE) > 0;
}

long Transfer::info(CURLINFO which) const {
  long value = 0;
  require(curl_easy_getinfo(easy_.get(), which, &value));
  return value;
}

// libcurl replaces a broken kept connection itself, and then reports the new one's failure as the old one's.
// A new transfer reports its own.
curl_socket_t Transfer::on_open_socket(void* transfer, curlsocktype purpose,
                                       curl_sockaddr* address) noexcept {
  auto& self = *static_cast<Transfer*>(transfer);
  self.refused_to_reconnect_ = self.had_connection_ && !self.head_.begun();
  if (self.refused_to_reconnect_) return CURL_SOCKET_BAD;
  return Session::open_socket(&self.session_, purpose, address);
}

// If the proxy speaks TLS, its handshake is the first.
std::string Transfer::next_tls_peer() {
  const bool is_proxy = tls_connections_++ == 0 && route_.proxy && route_.proxy->speaks_tls();
  return is_proxy ? "proxy " + route_.proxy->peer() : route_.origin;
}

CURLcode Transfer::on_tls_context(CURL*, void* context, void* transfer) noexcept {
  auto& self = *static_cast<Transfer*>(transfer);
  try {
    bind_context(static_cast<SSL_CTX*>(context), self.route_.trust, self.next_tls_peer(), self.session_.tls);
    return CURLE_OK;
  } catch (const std::bad_alloc&) {
    self.out_of_memory_ = true;
  }
  return CURLE_ABORTED_BY_CALLBACK;
}

std::size_t Transfer::on_header(char* data, std::size_t size, std::size_t count, void* transfer) noexcept {
  auto& self = *static_cast<Transfer*>(transfer);
  try {
    const bool was_complete = self.head_.complete();
    if (!self.head_.add_line({data, size * count})) return 0;
    // A final response after which libcurl repeated the request by itself.
    if (was_complete && !self.head_.complete()) {
      self.response_.body.clear();
      self.chunks_ = {};
    }
    return self.head_was_all() ? 0 : size * count;
  } catch (const std::bad_alloc&) {
    self.out_of_memory_ = true;
  } catch (const std::length_error&) {
    self.out_of_memory_ = true;
  }
  return 0;
}

// One allocation instead of several growing ones, if the length is announced.
void Transfer::reserve_body() {
  curl_off_t length = 0;
  if (curl_easy_getinfo(easy_.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) != CURLE_OK) return;
  if (length > 0) response_.body.reserve(std::min(static_cast<std::size_t>(length), kMostBodyBytes));
}

std::size_t Transfer::on_body(char* data, std::size_t size, std::size_t count, void* transfer) noexcept {
  auto& self = *static_cast<Transfer*>(transfer);
  try {
    if (size * count > kMostBodyBytes - self.response_.body.size()) {
      self.fault_.body_too_large = true;
      return 0;
    }
    if (self.response_.body.empty()) self.reserve_body();
    const std::string_view bytes(data, size * count);
    if (self.head_.chunked()) return self.chunks_.add(bytes, self.response_.body) ? bytes.size() : 0;
    self.response_.body.append(bytes);
    return bytes.size();
  } catch (const std::bad_alloc&) {
    self.out_of_memory_ = true;
  } catch (const std::length_error&) {
    self.out_of_memory_ = true;
  }
  return 0;
}

}  // namespace tessaline::auth::http
