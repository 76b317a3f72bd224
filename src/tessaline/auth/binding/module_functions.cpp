#include "tessaline/auth/binding/module_functions.hpp"

#include "tessaline/auth/manager/active_manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/steps/token_payload.hpp"
#include "tessaline/auth/steps/validation.hpp"
#include "tessaline/auth/transport/default_transport.hpp"

namespace tessaline::auth::binding {
namespace {

using python::Bound;
using python::Parameters;
using python::Ref;

PyObject* or_none(PyObject* argument) {
  return argument == nullptr ? Py_None : argument;
}

/// The entry from Python for a function with these parameters and this body.
template <const Parameters& kParameters, Ref (*kBody)(const Bound&)>
PyObject* entry(PyObject*, PyObject* const* arguments, Py_ssize_t count, PyObject* keyword_names) {
  return python::boundary([&] {
    python::require_stack();
    return kBody(kParameters.bind(arguments, count, keyword_names));
  });
}

template <const Parameters& kParameters, Ref (*kBody)(const Bound&)>
constexpr PyMethodDef define(const char* name, const char* doc) {
  return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&entry<kParameters, kBody>)),
          METH_FASTCALL | METH_KEYWORDS, doc};
}

constexpr Parameters kTransport("_default_http_transport", {"method", "url", "headers", "body"}, 4, 2, 0);
Ref transport(const Bound& given) {
  return default_http_transport(given[0], given[1], or_none(given[2]), or_none(given[3]));
}

PyObject* timeout_seconds(PyObject*, PyObject*) {
  return python::boundary([] { return python::global(names::auth_http_timeout_default); });
}

constexpr Parameters kDecodePayload("_decode_jwt_payload_unverified", {"token"}, 1, 1, 0);
Ref decode_payload(const Bound& given) {
  return decode_jwt_payload_unverified(given[0]);
}

constexpr Parameters kAssertSubject("_assert_token_subject_matches_wallet", {"token", "wallet_address"}, 2, 2,
                                    0);
Ref assert_subject(const Bound& given) {
  assert_token_subject_matches_wallet(given[0], given[1]);
  return Ref::none();
}

constexpr Parameters kValidateKey("_validate_private_key", {"private_key"}, 1, 1, 0);
Ref validate_key(const Bound& given) {
  return validate_private_key(given[0]);
}

constexpr Parameters kValidateUrl("_validate_server_url", {"server_url"}, 1, 1, 0);
Ref validate_url(const Bound& given) {
  return validate_server_url(given[0]);
}

constexpr Parameters kNormalizeInvite("_normalize_invite_code", {"invite_code"}, 1, 1, 0);
Ref normalize_invite(const Bound& given) {
  return normalize_invite_code(given[0]);
}

constexpr Parameters kEraNumber("_jwt_era_number", {"token"}, 1, 1, 0);
Ref era_number(const Bound& given) {
  return jwt_era_number(given[0]);
}

constexpr Parameters kSetActive("_set_active_auth_manager", {"manager"}, 1, 1, 0);
Ref set_active(const Bound& given) {
  set_active_auth_manager(given[0]);
  return Ref::none();
}

constexpr Parameters kNotify("notify_era_change", {"new_era_number"}, 1, 1, 0);
Ref notify(const Bound& given) {
  notify_active_manager(given[0]);
  return Ref::none();
}

PyMethodDef functions[] = {
    define<kTransport, transport>(
        "_default_http_transport",
        "_default_http_transport($module, /, method, url, headers=None, body=None)\n--\n\n"
        "Default HTTP transport using urllib. Returns (status, resp_headers, body_bytes).\n\n"
        "Keeps the conventions of urllib for redirects, trust and errors; connections are kept and reused by "
        "any\n"
        "thread. The GIL is released during the request, and Ctrl-C ends it.\n\n"
        "Args:\n"
        "    method: HTTP method, sent as given.\n"
        "    url: Absolute http or https URL, sent as given.\n"
        "    headers: Mapping of str to str, or None.\n"
        "    body: str (sent as UTF-8), bytes or None.\n\n"
        "Returns:\n"
        "    The status of any answer, error statuses included; a dict of its headers in the server's "
        "spelling, the\n"
        "    first of repeated ones; the whole body.\n\n"
        "Raises:\n"
        "    ConnectionError: Refused, reset, unreachable, unresolvable or cut off.\n"
        "    TimeoutError: Not done within `_auth_http_timeout_seconds()`.\n"
        "    ssl.SSLError: TLS failed; ssl.SSLCertVerificationError for a certificate or host name.\n"
        "    http.client.BadStatusLine: The answer is not HTTP.\n"
        "    ValueError: Method, URL or headers cannot be sent."),
    {"_auth_http_timeout_seconds", timeout_seconds, METH_NOARGS,
     "_auth_http_timeout_seconds($module, /)\n--\n\n"},
    define<kDecodePayload, decode_payload>(
        "_decode_jwt_payload_unverified",
        "_decode_jwt_payload_unverified($module, /, token)\n--\n\n"
        "Decode JWT payload without signature verification.\n\n"
        "Raises:\n"
        "    AuthError: \"wallet_mismatch\" for whatever cannot be read as a JSON object."),
    define<kAssertSubject, assert_subject>(
        "_assert_token_subject_matches_wallet",
        "_assert_token_subject_matches_wallet($module, /, token, wallet_address)\n--\n\n"),
    define<kValidateKey, validate_key>(
        "_validate_private_key",
        "_validate_private_key($module, /, private_key)\n--\n\n"
        "Validate private key format and value. Returns normalized hex without 0x prefix.\n\n"
        "Raises:\n"
        "    InvalidKeyError: Not 64 hexadecimal digits, or not strictly between 0 and the order of "
        "secp256k1\n"
        "        (SEC 2). The error never repeats the key."),
    define<kValidateUrl, validate_url>(
        "_validate_server_url",
        "_validate_server_url($module, /, server_url)\n--\n\n"
        "Validate server URL format. Returns the URL string.\n\n"
        "Raises:\n"
        "    ValueError: Empty, without scheme or host, or not fit to carry a bearer token."),
    define<kNormalizeInvite, normalize_invite>(
        "_normalize_invite_code",
        "_normalize_invite_code($module, /, invite_code)\n--\n\n"
        "Return canonical invite code for transport, or None when absent."),
    define<kEraNumber, era_number>(
        "_jwt_era_number",
        "_jwt_era_number($module, /, token)\n--\n\n"
        "Return integer era_number from a JWT payload, or None if it is unavailable.\n\n"
        "Raises:\n"
        "    AuthError: \"era_mismatch\" for a claim that is no number, \"wallet_mismatch\" for an "
        "unreadable token."),
    {nullptr, nullptr, 0, nullptr},
};

PyMethodDef active_manager_functions[] = {
    define<kSetActive, set_active>(
        "_set_active_auth_manager",
        "_set_active_auth_manager($module, /, manager)\n--\n\n"
        "Set the process-wide AuthManager used by era-transition callbacks.\n\n"
        "Args:\n"
        "    manager: Kept alive until it is replaced; None for no manager. May be called from any thread."),
    define<kNotify, notify>(
        "notify_era_change",
        "notify_era_change($module, /, new_era_number)\n--\n\n"
        "Notify the active process auth manager that the server era advanced.\n\n"
        "Does nothing when no manager is registered. May be called from any thread and returns at once.\n\n"
        "Args:\n"
        "    new_era_number: Lowest era, from 1, that the next token must carry.\n\n"
        "Raises:\n"
        "    ValueError: The number is not positive.\n"
        "    TypeError: It is not a number.\n"
        "    AuthError: \"manager_closed\" or \"not_authenticated\".\n"
        "    RuntimeError: The background thread could not be started."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

void add_functions(PyObject* module) {
  python::checked(PyModule_AddFunctions(module, functions));
}

void add_active_manager_functions(PyObject* module) {
  python::checked(PyModule_AddFunctions(module, active_manager_functions));
}

}  // namespace tessaline::auth::binding
