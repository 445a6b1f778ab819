// Makes the nth allocation of the process fail: malloc and its relatives come through here, and so do operator new, the
// C library's own allocations and those of a loaded module.
#pragma once

#include <atomic>

namespace qx::trust {

struct AllocationFault {
  long nth = 0;  // counted from 1; 0: none fails
  bool lasts = false;
};

// Counts from now on. Sets `has_failed`, which may be in memory that another process sees, when an allocation fails.
void FailAllocations(AllocationFault fault, std::atomic<bool>& has_failed);
void StopFailingAllocations();

}  // namespace qx::trust
