// Runs a piece of work with each of its allocations failing in turn. The program replaces operator new.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <optional>
#include <string>

#include "tests/support/FailingAllocator.h"

namespace qx::test {

// Prepares and works again and again, with the first, second, ... allocation of the work failing, until none fails.
// The result is judged each time; there is no result when the work has thrown std::bad_alloc.
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
