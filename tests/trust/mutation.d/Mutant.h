// Included before every source that has mutants. A mutant is an expression of the form
//   (qx_mutant(17) ? changed : original)
// The environment variable QX_MUTANT names the active mutant, so that one build contains all mutants.
#pragma once

#ifdef __cplusplus
#include <cstdlib>

// The variable is read at the first call, because constructors may call this before any other code runs. Two threads
// that read it at the same time get the same number.
inline bool qx_mutant(int number) {
  static int alive = -2;
  int seen = __atomic_load_n(&alive, __ATOMIC_RELAXED);
  if (seen == -2) {
    const char* const text = std::getenv("QX_MUTANT");
    seen = text == nullptr ? -1 : std::atoi(text);
    __atomic_store_n(&alive, seen, __ATOMIC_RELAXED);
  }
  return seen == number;
}
#endif
