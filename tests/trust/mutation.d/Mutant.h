// Stands in front of every source that has mutants. A mutant is an expression of the form
//   (qx_mutant(17) ? changed : original)
// and the environment variable QX_MUTANT says which one is alive: one build holds them all.
#pragma once

#ifdef __cplusplus
#include <cstdlib>

// The module is loaded before its objects are constructed elsewhere, so the number is looked up at the first question.
// Two threads that ask first both find the same.
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
