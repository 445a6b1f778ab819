// How a fuzz program reports that something is wrong: a message, and an end that libFuzzer notices.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace qx::fuzz {

[[noreturn]] inline void Wrong(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

// `fault` is what is wrong if it does not hold.
inline void Require(bool holds, const char* fault = "a property does not hold") {
  if (!holds) Wrong(fault);
}

// `property` is what has to hold.
inline void Demand(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}

}  // namespace qx::fuzz
