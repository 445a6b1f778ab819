// The whole program's operator new, made to fail on demand. A source of its own, lest the compiler sees through it.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <new>
#include <optional>
#include <string>

namespace qx::test {

// How many more allocations succeed before one fails; negative: none fails.
std::atomic<long>& AllocationsLeft();

// Prepares and works again and again, with the first, second, ... allocation of the work failing, until none fails.
// The result is judged each time; there is no result when the work has thrown std::bad_alloc.
template <typename Result>
void WithEachAllocationFailing(const std::function<void()>& prepare, const std::function<Result()>& work,
                               const std::function<void(const std::optional<Result>&)>& judge) {
  constexpr long kAllocationsMax = 2000;
  bool is_met = true;
  for (long nth = 0; is_met; ++nth) {
    ASSERT_LT(nth, kAllocationsMax) << "never passes untouched";
    SCOPED_TRACE("allocation " + std::to_string(nth));
    prepare();
    std::optional<Result> result;
    AllocationsLeft() = nth;
    try {
      result = work();
    } catch (const std::bad_alloc&) {
    }
    is_met = AllocationsLeft() < 0;
    AllocationsLeft() = -1;
    judge(result);
    EXPECT_TRUE(is_met || result.has_value());
  }
}

}  // namespace qx::test
