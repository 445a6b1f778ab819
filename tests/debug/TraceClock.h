// The clock of this test program replaces the C library's: entries get the times that a test sets.
#pragma once

#include <cstdint>

namespace qx::test {

// Is 2026-01-31 10:20:30.000 local time at the beginning of the scope; the real clock is used outside of it.
class TraceClock {
 public:
  TraceClock();
  ~TraceClock();
  TraceClock(const TraceClock&) = delete;
  TraceClock& operator=(const TraceClock&) = delete;

  // Moves the clock forward, or back.
  void Advance(std::int64_t milliseconds);
};

}  // namespace qx::test
