#include "tessaline/auth/binding/module_constants.hpp"

#include <span>
#include <string_view>

#include "tessaline/auth/constants.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth::binding {
namespace {

using python::Ref;

constinit const python::Name kCompile{"compile"};
constinit const python::Name kRe{"re"};

void define(const char* name, const Ref& value) {
  const Ref key = python::checked(PyUnicode_InternFromString(name));
  python::checked(PyDict_SetItem(python::module_namespace(), key.get(), value.get()));
}

Ref interned_text(const char* value) {
  return python::checked(PyUnicode_InternFromString(value));
}

Ref frozen_set(std::span<const std::string_view> elements) {
  Ref made = python::checked(PyFrozenSet_New(nullptr));
  for (const std::string_view element : elements) {
    python::checked(PySet_Add(made.get(), python::text(element).get()));
  }
  return made;
}

Ref compiled(const char* pattern) {
  return python::call_method(python::global(kRe).get(), kCompile, {python::text(pattern).get()});
}

}  // namespace

void add_constants() {
  static constexpr std::array<const char*, kStateTexts.size()> kStateNames{
      "_UNINITIALIZED", "_AUTHENTICATING", "_AUTHENTICATED", "_RE_AUTHENTICATING", "_CLOSED"};

  define("_SECP256K1_ORDER", python::checked(PyLong_FromString(kCurveOrderHex, nullptr, 16)));
  for (std::size_t index = 0; index < kStateNames.size(); ++index) {
    define(kStateNames[index], interned_text(kStateTexts[index]));
  }
  define("_BACKOFF_BASE", python::integer(kBackoffBase));
  define("_BACKOFF_CAP", python::integer(kBackoffCap));
  define("_AUTH_HTTP_TIMEOUT_DEFAULT", python::number(kHttpTimeoutDefault));
  define("_AUTH_FLOW_HTTP_MAX_ATTEMPTS", python::integer(kFlowHttpMaxAttempts));
  define("_AUTH_FLOW_CHALLENGE_MAX_CYCLES", python::integer(kFlowChallengeMaxCycles));
  define("_REFRESH_RATIO", python::number(kRefreshRatio));
  define("_TOKEN_LIFETIME", python::integer(kTokenLifetime));
  define("_DISPLAY_NAME_RE", compiled(kDisplayNamePattern));
  define("_DISPLAY_NAME_ERR", python::text(kDisplayNameError));
  define("_INVITE_REGISTRATION_REASONS", frozen_set(kInviteReasons));
  define("_PERMANENT_REASONS", frozen_set(kPermanentReasons));
  define("_REAUTH_MODE_PROACTIVE", interned_text(kModeProactive));
  define("_REAUTH_MODE_ERA_CHANGE", interned_text(kModeEraChange));
}

void add_active_manager_slot() {
  define("_active_auth_manager", Ref::none());
  define("_active_auth_manager_lock",
         python::call_method(python::global(names::threading).get(), names::lock));
}

}  // namespace tessaline::auth::binding
