// Replaces operator new and delete of the program. They are in a source of their own, so that the compiler cannot
// inline them.
#include <cstdlib>
#include <new>

#include "tests/support/FailingAllocator.h"

namespace {

void* Allocated(std::size_t size) noexcept {
  if (qx::test::AllocationFails(qx::test::Allocator::kNew, size)) return nullptr;
  return std::malloc(size != 0 ? size : 1);
}

void* AllocatedOrThrow(std::size_t size) {
  void* const p = Allocated(size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

}  // namespace

void* operator new(std::size_t size) { return AllocatedOrThrow(size); }
void* operator new[](std::size_t size) { return AllocatedOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocated(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Allocated(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
