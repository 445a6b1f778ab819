// Reports that something is wrong in a fuzz program: prints a message and aborts, which libFuzzer notices.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace qx::fuzz {

[[noreturn]] inline void Wrong(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

// Ends the program unless `holds` is true. `fault` says what is wrong then.
inline void Require(bool holds, const char* fault = "a property does not hold") {
  if (!holds) Wrong(fault);
}

// Ends the program unless `holds` is true. `property` says what has to hold.
inline void Demand(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}

}  // namespace qx::fuzz
