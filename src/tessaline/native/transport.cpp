#include "tessaline/native/transport.hpp"

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/transport/default_trust.hpp"
#include "tessaline/auth/transport/exchange.hpp"
#include "tessaline/auth/transport/proxy_environment.hpp"
#include "tessaline/native/types.hpp"

namespace tessaline::native {
namespace {

using auth::python::Ref;
namespace http = auth::http;
namespace python = auth::python;

/// Immutable once the object is constructed: any number of threads read it.
struct Settings {
  std::chrono::duration<double> timeout{};
  std::optional<http::TrustStore> trust;       ///< empty: Python's default
  std::optional<http::ProxySettings> proxies;  ///< empty: those in the environment
  std::string user_agent;                      ///< empty: the package's
  std::string shown;                           ///< for `repr`; without secrets
};

struct Transport {
  PyObject_HEAD vectorcallfunc called;
  Settings* settings;
  PyObject* on_exchange;  ///< called with path, status and seconds of each exchange, or null
  PyObject* on_mistake;   ///< called without arguments while an exception of `on_exchange` is being handled
  PyObject* amend;        ///< called with a response that asks to wait; returns its replacement; or null
};

Transport& transport_of(PyObject* self) {
  return *reinterpret_cast<Transport*>(self);
}

PyObject* or_none(PyObject* given) {
  return given == nullptr ? Py_None : given;
}

http::Request request_with(const Settings& settings, const python::Bound& given) {
  http::Request request = auth::request_of(given[0], given[1], or_none(given[2]), or_none(given[3]));
  request.timeout = settings.timeout;
  request.trust = settings.trust ? *settings.trust : auth::default_trust_store();
  request.proxies = settings.proxies ? *settings.proxies : auth::proxies_of_environment();
  request.user_agent = settings.user_agent;
  return request;
}

/// The path of an absolute URL, without query and fragment.
std::string_view path_of(std::string_view url) {
  const auto scheme = url.find("://");
  url = url.substr(0, url.find_first_of("?#"));
  const auto start = scheme == std::string_view::npos ? scheme : url.find('/', scheme + 3);
  return start == std::string_view::npos ? "/" : url.substr(start);
}

/// An exception in there is reported, not raised, unless it ends the program.
void tell(const Transport& transport, const http::Request& request, PyObject* answer, double seconds) {
  std::optional<python::Error> failure = python::caught([&] {
    const Ref path = python::text(path_of(request.url));
    PyObject* const status = answer == nullptr ? Py_None : PyTuple_GET_ITEM(answer, 0);
    python::call(transport.on_exchange, {path.get(), status, python::number(seconds).get()});
  });
  if (!failure) return;
  if (!failure->matches(PyExc_Exception)) throw std::move(*failure);
  const python::Handling handling(*failure);
  // It logs, and a program's own handlers and filters may raise too.
  std::optional<python::Error> mistake = python::caught([&] { python::call(transport.on_mistake); });
  if (mistake && !mistake->matches(PyExc_Exception)) throw std::move(*mistake);
}

Ref told_exchange(const Transport& transport, const http::Request& request,
                  const auth::ChosenSettings& chosen) {
  const auto begun = std::chrono::steady_clock::now();
  Ref answer;
  std::optional<python::Error> failure =
      python::caught([&] { answer = auth::make_exchange(request, chosen); });
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun;
  tell(transport, request, answer.get(), taken.count());
  if (failure) throw std::move(*failure);
  return answer;
}

bool is_retry_after(PyObject* name) {
  constexpr std::string_view kName = "retry-after";
  return PyUnicode_GET_LENGTH(name) == static_cast<Py_ssize_t>(kName.size()) && PyUnicode_IS_ASCII(name) &&
         PyOS_strnicmp(static_cast<const char*>(PyUnicode_DATA(name)), kName.data(), kName.size()) == 0;
}

bool asks_to_wait(PyObject* answer) {
  PyObject* name = nullptr;
  for (Py_ssize_t at = 0; PyDict_Next(PyTuple_GET_ITEM(answer, 1), &at, &name, nullptr) != 0;) {
    if (is_retry_after(name)) return true;
  }
  return false;
}

PyObject* call(PyObject* self, PyObject* const* arguments, std::size_t count, PyObject* keyword_names) {
  return python::boundary([&] {
    python::require_stack();
    static constexpr python::Parameters kParameters("transport", {"method", "url", "headers", "body"}, 4, 2,
                                                    0);
    const Transport& transport = transport_of(self);
    const Settings& settings = *transport.settings;
    const http::Request request =
        request_with(settings, kParameters.bind(arguments, PyVectorcall_NARGS(count), keyword_names));
    const auth::ChosenSettings chosen{settings.trust.has_value(), settings.proxies.has_value()};
    Ref answer = transport.on_exchange == nullptr ? auth::make_exchange(request, chosen)
                                                  : told_exchange(transport, request, chosen);
    if (transport.amend == nullptr || !asks_to_wait(answer.get())) return answer;
    return python::call(transport.amend, {answer.get()});
  });
}

std::string text_of(PyObject* value) {
  return std::string(python::utf8_of(value));
}

std::string bytes_of(PyObject* path) {
  if (!PyBytes_Check(path)) python::raise(PyExc_TypeError, "the path must be bytes");
  return {PyBytes_AS_STRING(path), static_cast<std::size_t>(PyBytes_GET_SIZE(path))};
}

std::unique_ptr<Settings> settings_of(const python::Bound& given) {
  auto settings = std::make_unique<Settings>();
  settings->timeout = std::chrono::duration<double>(python::double_value(given[0]));
  if (given[1] != Py_None) settings->trust = http::TrustStore{bytes_of(given[1]), {}};
  if (given[2] != Py_None) settings->proxies = http::ProxySettings{text_of(given[2]), text_of(given[2]), {}};
  settings->user_agent = text_of(given[3]);
  settings->shown = text_of(given[4]);
  return settings;
}

PyObject* unless_none(PyObject* value) {
  return value == Py_None ? nullptr : Py_NewRef(value);
}

PyObject* make(PyTypeObject* type, PyObject* arguments, PyObject* keywords) {
  return python::boundary([&] {
    static constexpr python::Parameters kParameters(
        "Transport",
        {"timeout", "ca_file", "proxy", "user_agent", "shown", "on_exchange", "on_mistake", "amend"}, 8, 8,
        0);
    const python::Bound given = kParameters.bind(arguments, keywords);
    std::unique_ptr<Settings> settings = settings_of(given);
    Ref made = python::checked(type->tp_alloc(type, 0));
    Transport& transport = transport_of(made.get());
    transport.called = call;
    transport.settings = settings.release();
    transport.on_exchange = unless_none(given[5]);
    transport.on_mistake = Py_NewRef(given[6]);
    transport.amend = unless_none(given[7]);
    return made;
  });
}

int clear(PyObject* self) {
  Transport& transport = transport_of(self);
  python::drop(std::exchange(transport.on_exchange, nullptr));
  python::drop(std::exchange(transport.on_mistake, nullptr));
  python::drop(std::exchange(transport.amend, nullptr));
  return 0;
}

void deallocate(PyObject* self) {
  PyTypeObject* const type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  clear(self);
  delete transport_of(self).settings;
  type->tp_free(self);
  python::drop(reinterpret_cast<PyObject*>(type));
}

int traverse(PyObject* self, visitproc visit, void* arg) {
  const Transport& transport = transport_of(self);
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(transport.on_exchange);
  Py_VISIT(transport.on_mistake);
  Py_VISIT(transport.amend);
  return 0;
}

PyObject* representation(PyObject* self) {
  return python::boundary([&] { return python::text(transport_of(self).settings->shown); });
}

PyMemberDef members[] = {
    {"__vectorcalloffset__", Py_T_PYSSIZET, offsetof(Transport, called), Py_READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(make)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(deallocate)},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
    {Py_tp_repr, reinterpret_cast<void*>(representation)},
    {Py_tp_members, members},
    {Py_tp_doc,
     const_cast<char*>(
         "Transport(timeout, ca_file, proxy, user_agent, shown, on_exchange, on_mistake, amend)\n--\n\n"
         "A transport with settings of its own, which are taken as they are given.\n\n"
         "Args:\n"
         "    timeout: Seconds that an exchange may take in all.\n"
         "    ca_file: Path of the file of trusted certificates, or None for what the host trusts.\n"
         "    proxy: URL of the proxy, \"\" for none, or None for those of the environment.\n"
         "    user_agent: As which it presents itself; \"\" for the package and its version.\n"
         "    shown: What the `repr` is.\n"
         "    on_exchange: Called after each exchange with path, status or None, and seconds; or None.\n"
         "    on_mistake: Called without arguments while an exception of `on_exchange` is being handled.\n"
         "    amend: Called with an answer that has a `Retry-After`, and returns what takes its place; or "
         "None.")},
    {0, nullptr},
};

PyType_Spec spec = {
    "tessaline._native.Transport", static_cast<int>(sizeof(Transport)), 0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_IMMUTABLETYPE, slots};

}  // namespace

void add_transport_type(PyObject* module) {
  add_type(module, spec);
}

}  // namespace tessaline::native
