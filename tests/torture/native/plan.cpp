#include "plan.hpp"

#include <dlfcn.h>
#include <link.h>

#include <atomic>
#include <cstring>

#include "crash.hpp"

namespace torture {
namespace {

constexpr long kMostTold = 60;

Plan plan;
std::atomic<long> seen{0};
std::atomic<long> failed{0};
std::atomic<bool> no_such_variant{false};
std::atomic<const char*> last_failure{""};

// Used by malloc, which the default TLS model might call.
[[gnu::tls_model("initial-exec")]] constinit thread_local bool armed_here = false;

bool comes_from(const void* address, const char* library) noexcept {
  dl_find_object found;
  if (_dl_find_object(const_cast<void*>(address), &found) != 0) return false;
  return std::strstr(found.dlfo_link_map->l_name, library) != nullptr;
}

bool is_chosen(long number) noexcept {
  if (plan.first == 0) return false;
  return (number >= plan.first && number <= plan.last) || number == plan.also;
}

void note_failure(const char* what) noexcept {
  ++failed;
  last_failure = what;
  if (failed > kMostTold) return;
  armed_here = false;
  write_frames();
  armed_here = true;
}

}  // namespace

void begin(const Plan& next) noexcept {
  plan = next;
  seen = 0;
  failed = 0;
  no_such_variant = false;
  last_failure = "";
}

Tally end() noexcept {
  plan = Plan{};
  return {seen, failed, no_such_variant, last_failure};
}

Kind current_kind() noexcept {
  return plan.kind;
}

bool arm(bool on) noexcept {
  const bool before = armed_here;
  armed_here = on;
  return before;
}

bool armed() noexcept {
  return armed_here;
}

bool fails(Kind kind, const char* what) noexcept {
  if (!armed_here || kind != plan.kind) return false;
  if (!is_chosen(++seen)) return false;
  note_failure(what);
  return true;
}

int way_to_fail(const char* what, int ways, const void* caller) noexcept {
  if (!armed_here || plan.kind != Kind::kCall || !is_module(caller)) return -1;
  if (!is_chosen(++seen)) return -1;
  if (plan.variant >= ways) {
    no_such_variant = true;
    return -1;
  }
  note_failure(what);
  return plan.variant;
}

bool is_module(const void* address) noexcept {
  return comes_from(address, "/tessaline/auth.") || comes_from(address, "/tessaline/libtessaline_http.");
}

bool is_curl(const void* address) noexcept {
  return comes_from(address, "/libcurl.so");
}

}  // namespace torture
