#include "tessaline/auth/http/trust.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <mutex>
#include <new>
#include <vector>

#include "tessaline/auth/http/limits.hpp"

namespace tessaline::auth::http {
namespace {

struct Registry {
  std::mutex mutex;  ///< held while roots are read: other threads would read the same
  std::vector<std::shared_ptr<const Trust>> trusts;
};

// Never destroyed: threads may still use it when the process exits.
alignas(Registry) constinit std::array<std::byte, sizeof(Registry)> place{};

Registry& registry() noexcept {
  static Registry* const the_one = new (place.data()) Registry;
  return *the_one;
}

}  // namespace

std::shared_ptr<const Trust> Trust::in_force(const TrustStore& places) {
  Registry& all = registry();
  std::shared_ptr<const Trust> replaced;  // freed after the lock is released
  const std::lock_guard lock(all.mutex);
  const auto found = std::ranges::find_if(
      all.trusts, [&](const std::shared_ptr<const Trust>& trust) { return trust->places() == places; });
  if (found != all.trusts.end()) {
    if ((*found)->roots().is_current()) return *found;
    replaced = std::move(*found);
    all.trusts.erase(found);
  } else if (all.trusts.size() >= kMostTrusts) {
    replaced = std::move(all.trusts.front());
    all.trusts.erase(all.trusts.begin());
  }
  all.trusts.push_back(std::make_shared<const Trust>(places));
  return all.trusts.back();
}

void Trust::prepare() noexcept {
  registry();
}

void Trust::forget_all() noexcept {
  new (&registry()) Registry;
}

}  // namespace tessaline::auth::http
