#include "tests/trust/faults.d/FailingAllocator.h"

#include <cerrno>
#include <cstddef>

namespace {

std::atomic<long> allocations_left{-1};  // before one fails; -1: none does
std::atomic<bool> failure_lasts{false};
std::atomic<bool>* has_failed = nullptr;

bool MustFail() {
  if (allocations_left.load(std::memory_order_relaxed) < 0) return false;
  const long left = allocations_left.fetch_sub(1, std::memory_order_relaxed);
  if (left > 0) return false;
  if (failure_lasts.load(std::memory_order_relaxed)) allocations_left.store(0, std::memory_order_relaxed);
  has_failed->store(true, std::memory_order_relaxed);
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {

// The C library's allocator under the names that it keeps for this purpose.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

#define QX_EXPORTED __attribute__((visibility("default")))

QX_EXPORTED void* malloc(std::size_t size) { return MustFail() ? nullptr : __libc_malloc(size); }
QX_EXPORTED void* calloc(std::size_t count, std::size_t size) {
  return MustFail() ? nullptr : __libc_calloc(count, size);
}
QX_EXPORTED void* realloc(void* block, std::size_t size) { return MustFail() ? nullptr : __libc_realloc(block, size); }
QX_EXPORTED void* memalign(std::size_t alignment, std::size_t size) {
  return MustFail() ? nullptr : __libc_memalign(alignment, size);
}
QX_EXPORTED void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return MustFail() ? nullptr : __libc_memalign(alignment, size);
}
QX_EXPORTED int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
  void* const found = MustFail() ? nullptr : __libc_memalign(alignment, size);
  if (found == nullptr) return ENOMEM;
  *block = found;
  return 0;
}
QX_EXPORTED void free(void* block) { __libc_free(block); }
}

namespace qx::trust {

void FailAllocations(AllocationFault fault, std::atomic<bool>& failure_flag) {
  has_failed = &failure_flag;
  failure_lasts = fault.lasts;
  allocations_left = fault.nth - 1;
}

void StopFailingAllocations() { allocations_left = -1; }

}  // namespace qx::trust
