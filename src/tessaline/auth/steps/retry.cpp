#include "tessaline/auth/steps/retry.hpp"

#include <optional>
#include <string_view>
#include <utility>

#include "tessaline/auth/constants.hpp"
#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/errors/notes.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/steps/closing.hpp"
#include "tessaline/auth/steps/verdict.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

constexpr long kProfileRetryAfter = 60;  // seconds

/// Where an invalid "Retry-After" was received. Names and line numbers are part of the contract for log
/// records, and are not lines of this file.
struct HintScope {
  const char* name;
  long source_line;
};

constexpr HintScope kProfileScope{"profile", 452};
constexpr HintScope kRequestScope{"request", 461};

void log_invalid_retry_after(const HintScope& scope) {
  Ref metadata = python::dictionary({{names::reason, python::text("invalid_retry_after").get()},
                                     {names::scope, python::text(scope.name).get()}});
  python::call(python::global(names::log_library_surface_event).get(),
               {python::text("Authentication and HTTP transport").get(), python::text("error").get()},
               {{names::sub_service, python::text("auth").get()},
                {names::component, python::text("retry").get()},
                {names::metadata, metadata.get()},
                {names::source_function, python::text("_request_with_retry").get()},
                {names::source_file, python::text("tessaline_library/src/tessaline/auth").get()},
                {names::source_line, python::integer(scope.source_line).get()}});
}

Ref raw_hint(PyObject* headers) {
  Ref lowercase =
      python::call_method(headers, names::get, {python::text("retry-after").get(), python::text("").get()});
  return python::call_method(headers, names::get, {python::text("Retry-After").get(), lowercase.get()});
}

/// The delay that the server requests (RFC 9110, section 10.2.3, delay-seconds only), else `fallback`.
Ref retry_after(PyObject* headers, Ref fallback, const HintScope& scope) {
  const Ref header = python::with_note(notes::kTransportAnswer, [headers] { return raw_hint(headers); });
  if (!python::truthy(header.get())) return fallback;
  Ref seconds;
  std::optional<python::Error> failure = python::caught(
      [&] { seconds = python::call(reinterpret_cast<PyObject*>(&PyLong_Type), {header.get()}); });
  if (!failure) return seconds;
  if (!failure->matches(PyExc_ValueError)) throw std::move(*failure);
  log_invalid_retry_after(scope);
  return fallback;
}

/// The entry "error" of a JSON object, or an empty reference.
Ref error_entry(PyObject* value) {
  return PyDict_Check(value) ? python::entry(value, names::error) : Ref();
}

/// One call of `request_with_retry`: its tries and its back-off delay.
class Retry {
 public:
  Retry(PyObject* manager, const RetriedRequest& request)
      : manager_(manager), request_(request), backoff_(python::global(names::backoff_base)) {}

  Ref run() {
    for (;;) {
      raise_if_closing(manager_);
      Ref answer = try_once();
      if (!answer) continue;
      if (settled(answer.get())) return answer;
    }
  }

 private:
  /// The response, or an empty reference after the back-off for a network failure.
  Ref try_once() {
    Ref answer;
    std::optional<python::Error> failure = python::caught([&] {
      answer =
          python::call_method(manager_, names::http_request, {request_.method, request_.path},
                              {{names::body_dict, request_.body_dict}, {names::headers, request_.headers}});
    });
    if (!failure) return answer;
    if (!failure->matches(PyExc_ConnectionError) && !failure->matches(PyExc_TimeoutError)) {
      throw std::move(*failure);
    }
    const python::Handling handling(*failure);
    last_failure_ = Py_TYPE(failure->exception());
    back_off();
    last_failure_ = nullptr;
    return {};
  }

  /// True if the caller gets the response; false after a delay; raises for a permanent error.
  bool settled(PyObject* answer) {
    const auto [status, headers, value] = python::unpack3(answer);
    const Ref server_reason = error_entry(value.get());
    PyObject* const given_status = status.get();
    last_status_ = python::with_note(notes::kTransportAnswer,
                                     [given_status] { return python::long_value(given_status); });
    const Verdict verdict = judge(server_reason);
    switch (verdict.action) {
      case Action::kGiveBack:
        return true;
      case Action::kRefuse:
        raise_auth_error(verdict.reason);
      case Action::kRefuseRegistration:
        raise_registration_error(server_reason.get());
      case Action::kProfileInvalid:
        raise_invalid_profile(server_reason);
      case Action::kProfileRateLimited:
        raise_rate_limited(headers.get());
      case Action::kWaitAsTold:
        count_try_and_wait(retry_after(headers.get(), Ref::borrow(backoff_.get()), kRequestScope).get());
        return false;
      case Action::kBackOff:
        back_off();
        return false;
    }
    return true;
  }

  Verdict judge(const Ref& server_reason) const {
    std::optional<std::string_view> reason_text;
    if (server_reason && PyUnicode_Check(server_reason.get())) reason_text = ascii_of(server_reason.get());
    return classify(last_status_, python::utf8_of(request_.path), request_.is_verify, reason_text);
  }

  /// Reasons are ASCII; other text is not a reason, and may not even be valid UTF-8.
  static std::optional<std::string_view> ascii_of(PyObject* value) {
    if (!PyUnicode_IS_ASCII(value)) return std::nullopt;
    return python::utf8_of(value);
  }

  [[noreturn]] static void raise_invalid_profile(const Ref& server_reason) {
    const Ref message = server_reason ? Ref::borrow(server_reason.get()) : python::text("");
    raise_profile_error(reason::kValidationFailed, names::message, message.get());
  }

  [[noreturn]] static void raise_rate_limited(PyObject* headers) {
    const Ref hint = retry_after(headers, python::integer(kProfileRetryAfter), kProfileScope);
    raise_profile_error(reason::kRateLimited, names::retry_after, hint.get());
  }

  [[noreturn]] void raise_unreachable(PyObject* tries) const {
    const Ref error = new_network_error("Server unreachable after ", tries);
    if (PyUnicode_Check(request_.method) && PyUnicode_Check(request_.path)) {
      python::add_note_from(error.get(), [this] { return what_happened_last(); });
    }
    python::raise(error.get());
  }

  Ref what_happened_last() const {
    if (last_failure_ != nullptr) {
      return python::checked(
          PyUnicode_FromFormat(notes::kLastFailure, request_.method, request_.path, last_failure_->tp_name));
    }
    const bool may_pass = last_status_ == 429 || last_status_ >= 500;
    return python::checked(PyUnicode_FromFormat(may_pass ? notes::kLastStatus : notes::kLastOddStatus,
                                                request_.method, request_.path, last_status_));
  }

  void back_off() {
    count_try_and_wait(backoff_.get());
    Ref doubled = python::multiply(backoff_.get(), python::integer(2).get());
    Ref cap = python::global(names::backoff_cap);
    backoff_ = python::less(cap.get(), doubled.get()) ? std::move(cap) : std::move(doubled);
  }

  void count_try_and_wait(PyObject* seconds) {
    ++tries_;
    Ref tries = python::integer(tries_);
    if (request_.max_attempts != Py_None && !python::less(tries.get(), request_.max_attempts)) {
      raise_unreachable(tries.get());
    }
    python::set_attribute(manager_, names::in_transient_backoff, Py_True);
    std::optional<python::Error> failure =
        python::caught([&] { python::call_method(manager_, names::wait_with_clock, {seconds}); });
    python::set_attribute(manager_, names::in_transient_backoff, Py_False);
    if (failure) throw std::move(*failure);
  }

  PyObject* manager_;
  const RetriedRequest& request_;
  Ref backoff_;
  long tries_ = 0;
  long last_status_ = 0;
  PyTypeObject* last_failure_ = nullptr;  ///< while it is being handled
};

}  // namespace

Ref request_with_retry(PyObject* manager, const RetriedRequest& request) {
  return Retry(manager, request).run();
}

}  // namespace tessaline::auth
