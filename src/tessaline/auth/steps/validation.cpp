#include "tessaline/auth/steps/validation.hpp"

#include <string>
#include <string_view>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/errors/notes.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

constinit const python::Name kUrlParser{"urllib.parse"};
constinit const python::Name kUrlParse{"urlparse"};
constinit const python::Name kScheme{"scheme"};
constinit const python::Name kNetworkLocation{"netloc"};
constinit const python::Name kTransportPolicy{"tessaline._transport_security"};
constinit const python::Name kValidateBearerUrl{"validate_bearer_transport_url"};

PyObject* own_validator = nullptr;

[[noreturn]] void raise_invalid_key(const std::string& message, std::string_view note = {}) {
  if (note.empty()) python::raise(error_types().invalid_key, message.c_str());
  python::raise(error_types().invalid_key, message.c_str(), note);
}

/// The note for "\n" or "\r\n" after a key in a file, recognised by the length alone, without reading the
/// key.
std::string_view line_end_note(std::size_t hex_digits) {
  const std::size_t more = hex_digits - wallet::kKeyHexDigits;
  return more == 1 || more == 2 ? notes::kKeyLineEnd : std::string_view();
}

/// Python's parser would quote the whole text, which is the key; this error replaces it as the context.
python::Error parse_error(std::size_t position) {
  PyErr_Format(PyExc_ValueError, "non-hexadecimal character at position %zu", position);
  return python::Error::fetch();
}

[[noreturn]] void refuse_key(const wallet::KeyRefusal& refusal) {
  switch (refusal.fault) {
    case wallet::KeyFault::kEmpty:
      raise_invalid_key("Private key must not be empty");
    case wallet::KeyFault::kWrongLength:
      raise_invalid_key("Private key must be 32 bytes (64 hex chars), got " +
                            std::to_string(refusal.hex_digits) + " hex chars",
                        line_end_note(refusal.hex_digits));
    case wallet::KeyFault::kNotHex: {
      const python::Error cause = parse_error(refusal.position);
      const python::Handling handling(cause);
      raise_invalid_key("Private key contains non-hex characters");
    }
    case wallet::KeyFault::kNotScalar:
      break;
  }
  python::raise(error_types().invalid_key, "Private key is not a valid secp256k1 scalar", notes::kKeyRange);
}

}  // namespace

wallet::WalletKey read_private_key(PyObject* private_key) {
  if (!python::truthy(private_key)) refuse_key({wallet::KeyFault::kEmpty});
  if (!PyUnicode_Check(private_key)) {
    PyErr_Format(PyExc_TypeError, "private_key must be str, not %.200s", Py_TYPE(private_key)->tp_name);
    throw python::noted(python::Error::fetch(), notes::kKeyText);
  }
  auto parsed =
      wallet::WalletKey::parse({PyUnicode_DATA(private_key), static_cast<int>(PyUnicode_KIND(private_key)),
                                static_cast<std::size_t>(PyUnicode_GET_LENGTH(private_key))});
  if (const auto* refusal = std::get_if<wallet::KeyRefusal>(&parsed)) refuse_key(*refusal);
  return std::get<wallet::WalletKey>(std::move(parsed));
}

wallet::WalletKey read_constructor_key(PyObject* private_key) {
  const Ref validator = python::global(names::validate_private_key);
  // Read in place: the module's own function would leave a copy of the key behind.
  if (validator.get() == own_validator) return read_private_key(private_key);
  return read_private_key(python::call(validator.get(), {private_key}).get());
}

void know_own_validator() {
  own_validator = python::global(names::validate_private_key).release();
}

Ref validate_private_key(PyObject* private_key) {
  read_private_key(private_key);
  const Py_ssize_t size = PyUnicode_GET_LENGTH(private_key);
  const Py_ssize_t digits = static_cast<Py_ssize_t>(wallet::kKeyHexDigits);
  return python::checked(PyUnicode_Substring(private_key, size - digits, size));
}

Ref validate_server_url(PyObject* server_url) {
  Ref policy = python::attribute(python::import(kTransportPolicy).get(), kValidateBearerUrl);
  Ref parser = python::import(kUrlParser);
  if (!python::truthy(server_url)) python::raise(PyExc_ValueError, "server_url must not be empty");
  if (!PyUnicode_Check(server_url)) {
    PyErr_Format(PyExc_TypeError, "server_url must be str, not %.200s", Py_TYPE(server_url)->tp_name);
    throw python::Error::fetch();
  }
  Ref parts = python::call_method(parser.get(), kUrlParse, {server_url});
  if (!python::truthy(python::attribute(parts.get(), kScheme).get()) ||
      !python::truthy(python::attribute(parts.get(), kNetworkLocation).get())) {
    const Ref given = python::text_of(server_url);
    const Ref message =
        python::checked(PyUnicode_FromFormat("server_url is not a valid URL: %U", given.get()));
    const Ref refusal = python::call(PyExc_ValueError, {message.get()});
    python::add_note(refusal.get(), notes::kUrlForm);
    python::raise(refusal.get());
  }
  return python::call(policy.get(), {server_url});
}

Ref normalize_invite_code(PyObject* invite_code) {
  if (invite_code == Py_None) return Ref::none();
  Ref canonical = python::call_method(python::text_of(invite_code).get(), names::strip);
  if (!python::truthy(canonical.get())) return Ref::none();
  return python::call_method(canonical.get(), names::lower);
}

}  // namespace tessaline::auth
