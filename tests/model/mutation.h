/* Which guard or effect of the model is out of order: the environment says, so that one program serves for all.
 * Looked up in tables, since the model may not call functions in its conditions. */
#include <stdlib.h>

enum { kMostNumbers = 256 };
static char intact[kMostNumbers], negated[kMostNumbers], always[kMostNumbers];

__attribute__((constructor)) static void choose_mutant(void) {
  const char* text = getenv("MUTANT");
  const int chosen = text ? atoi(text) : 0;
  for (int number = 0; number < kMostNumbers; ++number) {
    intact[number] = chosen / 3 != number;
    negated[number] = chosen == 3 * number;
    always[number] = chosen == 3 * number + 1;
  }
}
