#include "crash.hpp"

#include <dlfcn.h>
#include <execinfo.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace torture {
namespace {

constexpr std::array kSignals{SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};
constexpr int kMostFrames = 64;
std::array<struct sigaction, NSIG> before;
// The handler cannot run on a stack that has overflowed.
alignas(16) std::array<char, 65536> own_stack;

void write_text(const char* text) {
  static_cast<void>(!write(STDERR_FILENO, text, std::strlen(text)));
}

void write_frame(void* address) {
  Dl_info found{};
  if (dladdr(address, &found) == 0) return;
  const auto offset =
      reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(found.dli_fbase);
  std::array<char, 1024> line{};
  std::snprintf(line.data(), line.size(), "native: %s 0x%lx %s\n", found.dli_fname,
                static_cast<unsigned long>(offset), found.dli_sname == nullptr ? "?" : found.dli_sname);
  write_text(line.data());
}

void tell(int signal) {
  write_frames();
  sigaction(signal, &before[static_cast<std::size_t>(signal)], nullptr);
  raise(signal);
}

}  // namespace

void write_frames() noexcept {
  std::array<void*, kMostFrames> frames;
  const int count = backtrace(frames.data(), kMostFrames);
  for (int index = 0; index < count; ++index) write_frame(frames[static_cast<std::size_t>(index)]);
}

void watch_crashes() noexcept {
  std::array<void*, 1> frames;
  backtrace(frames.data(), 1);  // loads what it needs
  stack_t stack{};
  stack.ss_sp = own_stack.data();
  stack.ss_size = own_stack.size();
  sigaltstack(&stack, nullptr);
  struct sigaction action {};
  action.sa_handler = tell;
  action.sa_flags = SA_ONSTACK | SA_NODEFER;
  for (const int signal : kSignals) sigaction(signal, &action, &before[static_cast<std::size_t>(signal)]);
}

}  // namespace torture
