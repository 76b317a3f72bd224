#include "marks.hpp"

#include <valgrind/memcheck.h>
#include <valgrind/valgrind.h>

#include <array>
#include <cstdint>

void ctime_mark_secret(const void* data, std::size_t size) {
  static_cast<void>(VALGRIND_MAKE_MEM_UNDEFINED(data, size));
}

void ctime_mark_public(const void* data, std::size_t size) {
  static_cast<void>(VALGRIND_MAKE_MEM_DEFINED(data, size));
}

std::size_t ctime_count_secret(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  std::size_t count = 0;
  for (std::size_t i = 0; i < size; ++i) {
    std::uint8_t undefined_bits = 0;
    static_cast<void>(VALGRIND_GET_VBITS(bytes + i, &undefined_bits, 1));
    if (undefined_bits != 0) ++count;
  }
  return count;
}

unsigned ctime_reports() {
  return static_cast<unsigned>(VALGRIND_COUNT_ERRORS);
}

bool ctime_is_watched() {
  return RUNNING_ON_VALGRIND != 0;
}
