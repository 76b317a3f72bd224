#include <curl/curl.h>

#include <array>
#include <cstdarg>

#include "next.hpp"
#include "plan.hpp"

#undef curl_easy_setopt
#undef curl_easy_getinfo
#undef curl_multi_setopt

// Replace libcurl's functions. Constructors fail with null, the others with the codes documented for them. A
// request's result is read from a message, with each documented code once.

namespace {

constexpr std::array kSetFaults{CURLE_OUT_OF_MEMORY, CURLE_UNKNOWN_OPTION, CURLE_BAD_FUNCTION_ARGUMENT};
constexpr std::array kInfoFaults{CURLE_UNKNOWN_OPTION, CURLE_BAD_FUNCTION_ARGUMENT};
constexpr std::array kGlobalFaults{CURLE_FAILED_INIT, CURLE_OUT_OF_MEMORY};
constexpr std::array kMultiFaults{CURLM_OUT_OF_MEMORY, CURLM_INTERNAL_ERROR, CURLM_BAD_HANDLE};
constexpr std::array kAddFaults{CURLM_OUT_OF_MEMORY, CURLM_INTERNAL_ERROR, CURLM_BAD_HANDLE,
                                CURLM_BAD_EASY_HANDLE, CURLM_ADDED_ALREADY};
constexpr std::array kPollFaults{CURLM_OUT_OF_MEMORY, CURLM_UNRECOVERABLE_POLL, CURLM_BAD_HANDLE};
constexpr std::array kUrlSetFaults{CURLUE_OUT_OF_MEMORY, CURLUE_MALFORMED_INPUT, CURLUE_BAD_PORT_NUMBER,
                                   CURLUE_UNSUPPORTED_SCHEME, CURLUE_BAD_HOSTNAME};
constexpr std::array kUrlGetFaults{CURLUE_OUT_OF_MEMORY, CURLUE_NO_HOST, CURLUE_NO_PORT};

template <typename Faults>
constexpr int count(const Faults& faults) {
  return static_cast<int>(faults.size());
}

template <typename Faults>
auto fault(const Faults& faults, int way) {
  return faults[static_cast<std::size_t>(way)];
}

// Every such argument is a pointer or an integer of its size.
void* only_argument(va_list arguments) {
  return va_arg(arguments, void*);
}

}  // namespace

// libcurl declares its variadic functions with an enumeration before the ellipsis.
#pragma GCC diagnostic ignored "-Wvarargs"

extern "C" {

CURLcode curl_global_init(long flags) {
  TORTURE_NEXT(curl_global_init);
  const int way = TORTURE_WAY(curl_global_init, count(kGlobalFaults));
  return way < 0 ? real(flags) : fault(kGlobalFaults, way);
}

CURL* curl_easy_init() {
  TORTURE_NEXT(curl_easy_init);
  return TORTURE_WAY(curl_easy_init, 1) < 0 ? real() : nullptr;
}

CURLcode curl_easy_setopt(CURL* easy, CURLoption option, ...) {
  TORTURE_NEXT(curl_easy_setopt);
  va_list arguments;
  va_start(arguments, option);
  void* value = only_argument(arguments);
  va_end(arguments);
  const int way = TORTURE_WAY(curl_easy_setopt, count(kSetFaults));
  return way < 0 ? real(easy, option, value) : fault(kSetFaults, way);
}

CURLcode curl_easy_getinfo(CURL* easy, CURLINFO which, ...) {
  TORTURE_NEXT(curl_easy_getinfo);
  va_list arguments;
  va_start(arguments, which);
  void* value = only_argument(arguments);
  va_end(arguments);
  const int way = TORTURE_WAY(curl_easy_getinfo, count(kInfoFaults));
  return way < 0 ? real(easy, which, value) : fault(kInfoFaults, way);
}

CURLM* curl_multi_init() {
  TORTURE_NEXT(curl_multi_init);
  return TORTURE_WAY(curl_multi_init, 1) < 0 ? real() : nullptr;
}

CURLMcode curl_multi_setopt(CURLM* multi, CURLMoption option, ...) {
  TORTURE_NEXT(curl_multi_setopt);
  va_list arguments;
  va_start(arguments, option);
  void* value = only_argument(arguments);
  va_end(arguments);
  return TORTURE_WAY(curl_multi_setopt, 1) < 0 ? real(multi, option, value) : CURLM_UNKNOWN_OPTION;
}

CURLMcode curl_multi_add_handle(CURLM* multi, CURL* easy) {
  TORTURE_NEXT(curl_multi_add_handle);
  const int way = TORTURE_WAY(curl_multi_add_handle, count(kAddFaults));
  return way < 0 ? real(multi, easy) : fault(kAddFaults, way);
}

CURLMcode curl_multi_remove_handle(CURLM* multi, CURL* easy) {
  TORTURE_NEXT(curl_multi_remove_handle);
  return TORTURE_WAY(curl_multi_remove_handle, 1) < 0 ? real(multi, easy) : CURLM_BAD_EASY_HANDLE;
}

CURLMcode curl_multi_perform(CURLM* multi, int* running) {
  TORTURE_NEXT(curl_multi_perform);
  const int way = TORTURE_WAY(curl_multi_perform, count(kMultiFaults));
  return way < 0 ? real(multi, running) : fault(kMultiFaults, way);
}

CURLMcode curl_multi_poll(CURLM* multi, curl_waitfd* extra, unsigned extra_count, int milliseconds,
                          int* ready) {
  TORTURE_NEXT(curl_multi_poll);
  const int way = TORTURE_WAY(curl_multi_poll, count(kPollFaults));
  return way < 0 ? real(multi, extra, extra_count, milliseconds, ready) : fault(kPollFaults, way);
}

CURLMsg* curl_multi_info_read(CURLM* multi, int* left) {
  TORTURE_NEXT(curl_multi_info_read);
  // The first way is no message, the others are the codes.
  const int way = TORTURE_WAY(curl_multi_info_read, CURL_LAST);
  if (way == 0) return nullptr;
  CURLMsg* message = real(multi, left);
  if (way < 0 || message == nullptr) return message;
  static thread_local CURLMsg changed;
  changed = *message;
  changed.data.result = static_cast<CURLcode>(way);
  return &changed;
}

CURLMcode curl_multi_cleanup(CURLM* multi) {
  TORTURE_NEXT(curl_multi_cleanup);
  // Done nevertheless: there is no second try.
  const int way = TORTURE_WAY(curl_multi_cleanup, 1);
  const CURLMcode code = real(multi);
  return way < 0 ? code : CURLM_INTERNAL_ERROR;
}

curl_slist* curl_slist_append(curl_slist* list, const char* text) {
  TORTURE_NEXT(curl_slist_append);
  return TORTURE_WAY(curl_slist_append, 1) < 0 ? real(list, text) : nullptr;
}

CURLU* curl_url() {
  TORTURE_NEXT(curl_url);
  return TORTURE_WAY(curl_url, 1) < 0 ? real() : nullptr;
}

CURLUcode curl_url_set(CURLU* url, CURLUPart part, const char* text, unsigned flags) {
  TORTURE_NEXT(curl_url_set);
  const int way = TORTURE_WAY(curl_url_set, count(kUrlSetFaults));
  return way < 0 ? real(url, part, text, flags) : fault(kUrlSetFaults, way);
}

// Whether its first argument is const depends on the release.
CURLUcode torture_url_get(CURLU* url, CURLUPart part, char** text, unsigned flags) __asm__("curl_url_get");
CURLUcode torture_url_get(CURLU* url, CURLUPart part, char** text, unsigned flags) {
  static auto* const real = torture::next<decltype(torture_url_get)>("curl_url_get");
  const int way = TORTURE_WAY(curl_url_get, count(kUrlGetFaults));
  return way < 0 ? real(url, part, text, flags) : fault(kUrlGetFaults, way);
}

}  // extern "C"
