#include "python_allocators.hpp"

#include <Python.h>

#include <array>
#include <atomic>

#include "plan.hpp"

namespace torture {
namespace {

struct Domain {
  PyMemAllocatorDomain id;
  const char* name;
  PyMemAllocatorEx own;
};

constinit std::array<Domain, 3> domains{{{PYMEM_DOMAIN_RAW, "raw allocation", {}},
                                         {PYMEM_DOMAIN_MEM, "mem allocation", {}},
                                         {PYMEM_DOMAIN_OBJ, "object allocation", {}}}};
constinit std::atomic<long> live_blocks{0};

bool fails_here(const Domain& domain) noexcept {
  return fails(Kind::kPythonAllocation, domain.name);
}

void* counted(void* block) noexcept {
  if (block != nullptr) live_blocks.fetch_add(1, std::memory_order_relaxed);
  return block;
}

void* allocate(void* context, std::size_t size) noexcept {
  const auto& domain = *static_cast<Domain*>(context);
  return fails_here(domain) ? nullptr : counted(domain.own.malloc(domain.own.ctx, size));
}

void* allocate_zeroed(void* context, std::size_t count, std::size_t size) noexcept {
  const auto& domain = *static_cast<Domain*>(context);
  return fails_here(domain) ? nullptr : counted(domain.own.calloc(domain.own.ctx, count, size));
}

void* reallocate(void* context, void* block, std::size_t size) noexcept {
  const auto& domain = *static_cast<Domain*>(context);
  if (fails_here(domain)) return nullptr;
  void* moved = domain.own.realloc(domain.own.ctx, block, size);
  return block == nullptr ? counted(moved) : moved;
}

void release(void* context, void* block) noexcept {
  const auto& domain = *static_cast<Domain*>(context);
  if (block != nullptr) live_blocks.fetch_sub(1, std::memory_order_relaxed);
  domain.own.free(domain.own.ctx, block);
}

}  // namespace

void hook_python_allocators() noexcept {
  static bool hooked = false;
  if (hooked) return;
  hooked = true;
  for (Domain& domain : domains) {
    PyMem_GetAllocator(domain.id, &domain.own);
    PyMemAllocatorEx hook{&domain, allocate, allocate_zeroed, reallocate, release};
    PyMem_SetAllocator(domain.id, &hook);
  }
}

long live_python_blocks() noexcept {
  return live_blocks.load();
}

}  // namespace torture
