#include "tests/provider/FailingNew.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

// The thread whose allocations are counted, or 0. While it is set, only that thread uses the other two.
std::atomic<pthread_t> counted_thread{0};
std::atomic<int> left_until_failure{0};
std::atomic<std::size_t> counted_bytes_min{0};

bool FailsNow(std::size_t size) noexcept {
  if (counted_thread != pthread_self() || size < counted_bytes_min || left_until_failure <= 0) return false;
  return --left_until_failure == 0;
}

void* Allocated(std::size_t size) noexcept {
  if (FailsNow(size)) return nullptr;
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

namespace qx::test {

FailingNew::FailingNew(int nth, std::size_t bytes_min) {
  left_until_failure = nth;
  counted_bytes_min = bytes_min;
  counted_thread = pthread_self();
}

FailingNew::~FailingNew() { counted_thread = 0; }

bool FailingNew::HasFailed() const { return left_until_failure == 0; }

}  // namespace qx::test
