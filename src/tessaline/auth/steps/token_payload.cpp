#include "tessaline/auth/steps/token_payload.hpp"

#include <optional>
#include <utility>

#include "tessaline/auth/constants.hpp"
#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

constexpr Py_ssize_t kSegments = 3;

/// `segment`, padded with "=" to a multiple of four characters.
Ref padded(PyObject* segment) {
  static constexpr std::string_view kPadding = "===";
  const auto missing = static_cast<std::size_t>((4 - python::length(segment) % 4) % 4);
  return python::add(segment, python::text(kPadding.substr(0, missing)).get());
}

Ref parse_payload(PyObject* token) {
  Ref segments = python::call_method(token, names::split, {python::text(".").get()});
  if (python::length(segments.get()) != kSegments) raise_auth_error(reason::kWalletMismatch);
  Ref encoded = padded(python::item(segments.get(), python::integer(1).get()).get());
  Ref ascii = python::call_method(encoded.get(), names::encode, {python::text("ascii").get()});
  Ref decoded =
      python::call_method(python::global(names::base64).get(), names::urlsafe_b64decode, {ascii.get()});
  return python::call_method(python::global(names::json).get(), names::loads, {decoded.get()});
}

Ref payload_of(PyObject* token) {
  return python::call(python::global(names::decode_jwt_payload).get(), {token});
}

/// What `read` returns, or nothing if it raises an `Exception`.
template <class Read>
Ref or_nothing(Read&& read) {
  Ref value;
  std::optional<python::Error> failure = python::caught([&] { value = read(); });
  if (failure && !failure->matches(PyExc_Exception)) throw std::move(*failure);
  return value;
}

bool is_no_number(const python::Error& error) {
  return error.matches(PyExc_TypeError) || error.matches(PyExc_ValueError) ||
         error.matches(PyExc_OverflowError);
}

}  // namespace

Ref decode_jwt_payload_unverified(PyObject* token) {
  // Raised without the parser's error as context: that has the text it could not parse, here a token's.
  const Ref payload = or_nothing([token] { return parse_payload(token); });
  if (!payload || !PyDict_Check(payload.get())) raise_auth_error(reason::kWalletMismatch);
  return Ref::borrow(payload.get());
}

Ref jwt_era_number(PyObject* token) {
  Ref decoded = Ref::borrow(token);
  if (PyBytes_Check(token)) {
    decoded = or_nothing(
        [token] { return python::call_method(token, names::decode, {python::text("ascii").get()}); });
    if (!decoded) raise_auth_error(reason::kEraMismatch);
  }
  const Ref payload = payload_of(decoded.get());
  const Ref claim = python::entry(payload.get(), names::era_number);
  if (!claim || claim.is_none() || PyBool_Check(claim.get())) return Ref::none();
  Ref era;
  std::optional<python::Error> failure =
      python::caught([&] { era = python::call(reinterpret_cast<PyObject*>(&PyLong_Type), {claim.get()}); });
  if (failure && !is_no_number(*failure)) throw std::move(*failure);
  if (!era) raise_auth_error(reason::kEraMismatch);
  return python::less(python::integer(0).get(), era.get()) ? std::move(era) : Ref::none();
}

void assert_token_subject_matches_wallet(PyObject* token, PyObject* wallet_address) {
  Ref payload = payload_of(token);
  Ref subject = python::entry(payload.get(), names::sub);
  if (!subject || !PyUnicode_Check(subject.get())) raise_auth_error(reason::kWalletMismatch);
  Ref lowered = python::call_method(subject.get(), names::lower);
  if (!python::equal(lowered.get(), wallet_address)) raise_auth_error(reason::kWalletMismatch);
}

}  // namespace tessaline::auth
