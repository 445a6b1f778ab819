#include "tests/support/FailingAllocator.h"

#include <pthread.h>

#include <cerrno>

namespace qx::test {

namespace {

constinit AllocationFault instruction;
constinit pthread_t instructing_thread = 0;
constinit std::atomic<bool> has_failed{false};
constinit std::atomic<long> allocations_left{-1};  // before one fails; negative: none fails

bool Counts(Allocator allocator, std::size_t bytes) noexcept {
  const bool is_in_size = bytes >= instruction.bytes_min && bytes <= instruction.bytes_max;
  const bool is_in_thread = instruction.in_all_threads || instructing_thread == pthread_self();
  return allocator == instruction.allocator && is_in_size && is_in_thread;
}

}  // namespace

FailingAllocation::FailingAllocation(const AllocationFault& fault) {
  instruction = fault;
  instructing_thread = pthread_self();
  has_failed = false;
  allocations_left = fault.nth - 1;
}

FailingAllocation::~FailingAllocation() { allocations_left = -1; }

bool FailingAllocation::HasFailed() const { return has_failed; }
long FailingAllocation::Allocations() const { return instruction.nth - 1 - allocations_left; }

bool AllocationFails(Allocator allocator, std::size_t bytes) noexcept {
  if (allocations_left < 0 || !Counts(allocator, bytes)) return false;
  if (allocations_left.fetch_sub(1) != 0) return false;
  if (instruction.lasts) allocations_left = 0;
  has_failed = true;
  if (instruction.failed != nullptr) *instruction.failed = true;
  errno = ENOMEM;
  return true;
}

}  // namespace qx::test
