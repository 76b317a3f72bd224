#pragma once

namespace torture {

/// Wraps the interpreter's allocators of all three domains, once and permanently.
void hook_python_allocators() noexcept;

/// Allocated minus freed blocks since then; only differences are meaningful.
long live_python_blocks() noexcept;

}  // namespace torture
