#include "tests/support/FailingAllocator.h"

#include <cstdlib>
#include <new>

namespace {

constinit std::atomic<long> allocations_left{-1};

bool AllocationFails() { return allocations_left >= 0 && allocations_left.fetch_sub(1) == 0; }

}  // namespace

std::atomic<long>& qx::test::AllocationsLeft() { return allocations_left; }

void* operator new(std::size_t size) {
  void* block = AllocationFails() ? nullptr : std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return AllocationFails() ? nullptr : std::malloc(size);
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t& nothrow) noexcept { return operator new(size, nothrow); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
