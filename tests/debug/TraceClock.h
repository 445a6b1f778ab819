// Replaces the C library's clock in this test program: entries get the times that a test sets.
#pragma once

#include <cstdint>

namespace qx::test {

// From construction to the end of the scope, the time is fixed: at first 2026-01-31 10:20:30.000 local time.
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
