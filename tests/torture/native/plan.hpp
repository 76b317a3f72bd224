#pragma once

#include <cstddef>

/// Which calls are made to fail, and the count of calls.
///
/// Calls are counted on armed threads while they are not inside code of the interpreter. Nothing here
/// allocates, because allocators call it.
namespace torture {

enum class Kind : int {
  kPythonAllocation,
  kModuleAllocation,   ///< `operator new` of the module
  kLibraryAllocation,  ///< `malloc` and its kin, called by libcurl
  kCall,               ///< what the module calls in libcurl, libsecp256k1 and the system
  kThread,             ///< `pthread_create`
  kCount,
};

struct Plan {
  Kind kind = Kind::kCount;
  long first = 0;   ///< the first that fails, counted from 1; 0: none
  long last = 0;    ///< the last of those that fail from there on
  long also = 0;    ///< one more, or 0
  int variant = 0;  ///< in which way a call fails
};

/// What has happened since the plan was made.
struct Tally {
  long seen = 0;
  long failed = 0;
  bool no_such_variant = false;
  const char* what = "";  ///< of the last one that failed
};

void begin(const Plan& plan) noexcept;
Tally end() noexcept;
Kind current_kind() noexcept;

/// Arms or disarms the calling thread; returns the previous state.
bool arm(bool on) noexcept;
bool armed() noexcept;

/// Counts one call on an armed thread; true if it must fail.
bool fails(Kind kind, const char* what) noexcept;

/// The same for a call with several ways to fail: the way, or -1.
int way_to_fail(const char* what, int ways, const void* caller) noexcept;

/// Whether code at that address belongs to the module, with the library that it loads, or to libcurl.
bool is_module(const void* address) noexcept;
bool is_curl(const void* address) noexcept;

/// The module's blocks from `operator new` that have not been deleted.
long live_module_blocks() noexcept;

/// The pages that the module mapped for secrets: how much of them is not zero except each page's header, and
/// how many slots are in use.
struct SecretPages {
  int pages = 0;
  long bytes_not_zero = 0;
  int slots_taken = 0;
};
SecretPages look_at_secret_pages() noexcept;

}  // namespace torture
