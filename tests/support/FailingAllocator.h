// Makes allocations fail on demand. The source that a program links decides which allocations are counted:
//
//   FailingNew.cpp            operator new
//   FailingMalloc.cpp         malloc and strdup of the program's own objects; needs --wrap=malloc,--wrap=strdup
//   FailingProcessMalloc.cpp  malloc and its relatives in the whole process: operator new, the C library's own
//                             allocations and those of a loaded module
//
//   const FailingAllocation failing({.nth = 2});                      the second operator new fails once
//   const FailingAllocation failing({.allocator = Allocator::kMalloc, .bytes_min = 100, .bytes_max = 100});
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qx::test {

enum class Allocator { kNew, kMalloc };

struct AllocationFault {
  Allocator allocator = Allocator::kNew;
  long nth = 1;                         // counted from 1; 0: no allocation fails
  std::size_t bytes_min = 0;            // smaller allocations do not count
  std::size_t bytes_max = SIZE_MAX;     // larger ones do not count either
  bool lasts = false;                   // all later ones fail as well
  bool in_all_threads = false;          // otherwise only allocations of the thread that makes the FailingAllocation
  std::atomic<bool>* failed = nullptr;  // set when an allocation fails; may be in memory that another process sees
};

// An instruction to fail, in force from construction to the end of the scope. There is at most one at a time.
class FailingAllocation {
 public:
  explicit FailingAllocation(const AllocationFault& fault);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  // Whether an allocation has failed because of this instruction.
  [[nodiscard]] bool HasFailed() const;
  // The number of counted allocations, as long as no allocation has failed.
  [[nodiscard]] long Allocations() const;
};

// Whether this call of an allocator must fail; if so, errno is set. The functions that replace an allocator call it.
[[nodiscard]] bool AllocationFails(Allocator allocator, std::size_t bytes) noexcept;

}  // namespace qx::test
