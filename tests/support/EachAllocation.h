// Runs a function repeatedly, with each of its allocations failing in turn. The program must replace operator new.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <optional>
#include <string>

#include "tests/support/FailingAllocator.h"

namespace qx::test {

// Calls `prepare` and `work` again and again: in the first run the first allocation of `work` fails, in the second run
// the second one, until `work` makes all its allocations. `judge` gets each result; unset if `work` has thrown
// std::bad_alloc.
template <typename Result>
void WithEachAllocationFailing(const std::function<void()>& prepare, const std::function<Result()>& work,
                               const std::function<void(const std::optional<Result>&)>& judge) {
  constexpr long kAllocationsMax = 2000;
  bool did_fail = true;
  for (long nth = 1; did_fail; ++nth) {
    ASSERT_LE(nth, kAllocationsMax) << "an allocation fails in every run";
    SCOPED_TRACE("allocation " + std::to_string(nth));
    prepare();
    std::optional<Result> result;
    {
      const FailingAllocation failing({.nth = nth, .in_all_threads = true});
      try {
        result = work();
      } catch (const std::bad_alloc&) {
      }
      did_fail = failing.HasFailed();
    }
    judge(result);
    EXPECT_TRUE(did_fail || result.has_value());
  }
}

}  // namespace qx::test
