#include "tessaline/auth/wallet/secret_memory.hpp"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <new>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define TESSALINE_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TESSALINE_ADDRESS_SANITIZER 1
#endif
#endif

namespace tessaline::auth::wallet {
namespace {

using Bytes = std::span<std::uint8_t, SecretSlot::kSize>;

bool all_equal(std::span<const std::uint8_t> bytes, std::uint8_t value) {
  return std::ranges::all_of(bytes, [value](std::uint8_t byte) { return byte == value; });
}

void fill(const SecretSlot& slot, std::uint8_t value) {
  std::ranges::fill(slot.bytes(), value);
}

std::vector<SecretSlot> acquire_many(std::size_t count) {
  std::vector<SecretSlot> slots;
  for (std::size_t i = 0; i < count; ++i) slots.push_back(SecretSlot::acquire());
  return slots;
}

/// The flags in the kernel's list of the mapping with `address`.
std::string mapping_flags(const void* address) {
  std::ifstream maps("/proc/self/smaps");
  const auto wanted = reinterpret_cast<std::uintptr_t>(address);
  bool inside = false;
  for (std::string line; std::getline(maps, line);) {
    std::uintptr_t first = 0;
    std::uintptr_t end = 0;
    char dash = 0;
    std::istringstream words(line);
    if (words >> std::hex >> first >> dash >> end && dash == '-') inside = first <= wanted && wanted < end;
    if (inside && line.starts_with("VmFlags:")) return line + " ";
  }
  return {};
}

/// A new page; null if there is no memory.
void* map_page() {
  void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return page == MAP_FAILED ? nullptr : page;
}

/// Whether the kernel reports that a page is excluded from core dumps. Emulators of processors ignore the
/// request.
bool shows_what_is_not_dumped() {
  void* page = map_page();
  madvise(page, 4096, MADV_DONTDUMP);
  const bool shown = mapping_flags(page).find(" dd ") != std::string::npos;
  munmap(page, 4096);
  return shown;
}

/// Ends the calling child with 0 if it can acquire, use and release; by a signal if that hangs.
[[noreturn]] void acquire_in_child() {
  alarm(20);
  std::vector<SecretSlot> slots = acquire_many(200);
  bool clean = true;
  for (const SecretSlot& slot : slots) {
    clean = clean && all_equal(slot.bytes(), 0);
    fill(slot, 0x5A);
  }
  slots.clear();
  std::_Exit(clean ? 0 : 1);
}

int wait_for(pid_t child) {
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

TEST(WipeTest, OverwritesExactlyTheBytesGiven) {
  std::array<std::uint8_t, 40> bytes{};
  bytes.fill(0xA5);
  wipe(bytes.data() + 4, 32);
  EXPECT_TRUE(all_equal(std::span(bytes).first(4), 0xA5));
  EXPECT_TRUE(all_equal(std::span(bytes).subspan(4, 32), 0));
  EXPECT_TRUE(all_equal(std::span(bytes).last(4), 0xA5));
}

TEST(WipeTest, NothingToWipe) {
  wipe(nullptr, 0);
}

TEST(SecretSlotTest, AcquiresZeroedMemory) {
  for (const SecretSlot& slot : acquire_many(300)) EXPECT_TRUE(all_equal(slot.bytes(), 0));
}

TEST(SecretSlotTest, SlotsAreDistinctAcrossPages) {
  const std::vector<SecretSlot> slots = acquire_many(300);
  std::vector<std::uintptr_t> addresses;
  for (const SecretSlot& slot : slots) {
    addresses.push_back(reinterpret_cast<std::uintptr_t>(slot.bytes().data()));
  }
  std::ranges::sort(addresses);
  for (std::size_t i = 1; i < addresses.size(); ++i) {
    EXPECT_GE(addresses[i] - addresses[i - 1], SecretSlot::kSize);
  }
}

TEST(SecretSlotTest, WritingOneSlotLeavesTheOthers) {
  const std::vector<SecretSlot> slots = acquire_many(130);
  for (std::size_t i = 0; i < slots.size(); ++i) fill(slots[i], static_cast<std::uint8_t>(i));
  for (std::size_t i = 0; i < slots.size(); ++i) {
    EXPECT_TRUE(all_equal(slots[i].bytes(), static_cast<std::uint8_t>(i))) << i;
  }
}

TEST(SecretSlotTest, WipesOnRelease) {
  std::uint8_t* memory = nullptr;
  {
    const SecretSlot slot = SecretSlot::acquire();
    memory = slot.bytes().data();
    fill(slot, 0xA5);
  }
  EXPECT_TRUE(all_equal(Bytes(memory, SecretSlot::kSize), 0));
}

TEST(SecretSlotTest, ReusesReleasedMemory) {
  acquire_many(200);  // maps the pages: from here on, they are searched in a fixed order
  std::set<std::uint8_t*> first;
  for (const SecretSlot& slot : acquire_many(200)) first.insert(slot.bytes().data());
  const std::vector<SecretSlot> again = acquire_many(200);
  EXPECT_TRUE(std::ranges::all_of(
      again, [&first](const SecretSlot& slot) { return first.contains(slot.bytes().data()); }));
}

TEST(SecretSlotTest, MoveHandsTheMemoryOver) {
  SecretSlot source = SecretSlot::acquire();
  fill(source, 0xA5);
  std::uint8_t* memory = source.bytes().data();
  const SecretSlot target = std::move(source);
  EXPECT_EQ(target.bytes().data(), memory);
  EXPECT_TRUE(all_equal(target.bytes(), 0xA5));
}

TEST(SecretSlotTest, MoveAssignmentWipesTheHeldMemory) {
  SecretSlot target = SecretSlot::acquire();
  fill(target, 0xA5);
  std::uint8_t* held = target.bytes().data();
  SecretSlot source = SecretSlot::acquire();
  fill(source, 0x5A);
  target = std::move(source);
  EXPECT_TRUE(all_equal(Bytes(held, SecretSlot::kSize), 0));
  EXPECT_TRUE(all_equal(target.bytes(), 0x5A));
}

TEST(SecretSlotTest, SelfMoveKeepsTheMemory) {
  SecretSlot slot = SecretSlot::acquire();
  fill(slot, 0xA5);
  SecretSlot& same = slot;
  slot = std::move(same);
  EXPECT_TRUE(all_equal(slot.bytes(), 0xA5));
}

TEST(SecretSlotTest, MovedFromTakesAnotherSlot) {
  SecretSlot slot = SecretSlot::acquire();
  const SecretSlot other = std::move(slot);
  slot = SecretSlot::acquire();
  EXPECT_NE(slot.bytes().data(), other.bytes().data());
}

TEST(SecretSlotTest, PagesStayOutOfCoreDumps) {
  const SecretSlot slot = SecretSlot::acquire();
  const std::string flags = mapping_flags(slot.bytes().data());
  if (!shows_what_is_not_dumped()) GTEST_SKIP() << "nothing shows here what stays out of core dumps";
  EXPECT_NE(flags.find(" dd "), std::string::npos) << flags;
}

TEST(SecretSlotTest, ChildPagesAreLockedAsInTheParent) {
  const SecretSlot slot = SecretSlot::acquire();
  const std::string flags = mapping_flags(slot.bytes().data());
  if (flags.find(" lo ") == std::string::npos) GTEST_SKIP() << "the system does not lock memory here";
  const pid_t child = fork();
  if (child == 0) {
    std::_Exit(mapping_flags(slot.bytes().data()).find(" lo ") == std::string::npos ? 1 : 0);
  }
  EXPECT_EQ(wait_for(child), 0);
}

TEST(SecretSlotTest, ThreadsNeverShareASlot) {
  std::atomic<int> faults = 0;
  std::vector<std::thread> threads;
  for (std::uint8_t mark = 1; mark <= 8; ++mark) {
    threads.emplace_back([mark, &faults] {
      for (int round = 0; round < 500; ++round) {
        const std::vector<SecretSlot> slots = acquire_many(20);
        for (const SecretSlot& slot : slots) {
          if (!all_equal(slot.bytes(), 0)) ++faults;
          fill(slot, mark);
        }
        for (const SecretSlot& slot : slots) {
          if (!all_equal(slot.bytes(), mark)) ++faults;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(faults, 0);
}

TEST(SecretSlotTest, ForkedChildKeepsItsOwnCopy) {
  const SecretSlot slot = SecretSlot::acquire();
  fill(slot, 0xA5);
  const pid_t child = fork();
  if (child == 0) {
    const bool kept = all_equal(slot.bytes(), 0xA5);
    fill(slot, 0x11);
    std::_Exit(kept ? 0 : 1);
  }
  EXPECT_EQ(wait_for(child), 0);
  EXPECT_TRUE(all_equal(slot.bytes(), 0xA5));
}

TEST(SecretSlotTest, ForkedChildAcquiresWhileOtherThreadsAreAtWork) {
  std::atomic<bool> stop = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&stop] {
      while (!stop) acquire_many(80);
    });
  }
  for (int i = 0; i < 50; ++i) {
    const pid_t child = fork();
    if (child == 0) acquire_in_child();
    EXPECT_EQ(wait_for(child), 0);
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

constexpr int kNoLimits = 2;

TEST(SecretSlotTest, ThrowsWhenTheSystemHasNoMemory) {
#if defined(TESSALINE_ADDRESS_SANITIZER) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer needs address space of its own";
#endif
  const pid_t child = fork();
  if (child == 0) {
    std::vector<SecretSlot> slots;
    slots.reserve(1000);
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_AS, &none);
    if (map_page() != nullptr) std::_Exit(kNoLimits);
    try {
      while (slots.size() < slots.capacity()) slots.push_back(SecretSlot::acquire());
    } catch (const std::bad_alloc&) {
      std::_Exit(0);
    }
    std::_Exit(1);
  }
  const int status = wait_for(child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNoLimits)
    GTEST_SKIP() << "an emulator of processors keeps no limit of memory";
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace tessaline::auth::wallet
