#pragma once

#include <cstdio>
#include <cstdlib>

// Ends the process if a property does not hold; libFuzzer then keeps the input.
#define CHECK(condition)                                                                  \
  do {                                                                                    \
    if (!(condition)) {                                                                   \
      std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                       \
    }                                                                                     \
  } while (false)
