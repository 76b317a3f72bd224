#pragma once

namespace torture {

/// Puts itself before the interpreter's allocators of all three domains, once and for good.
void hook_python_allocators() noexcept;

/// Blocks allocated less blocks freed since then; only differences mean something.
long live_python_blocks() noexcept;

}  // namespace torture
