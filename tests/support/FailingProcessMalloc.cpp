// Replaces malloc and its relatives in the whole process: a loaded module and the C library call these functions, too.
#include <cerrno>
#include <cstddef>

#include "tests/support/FailingAllocator.h"

namespace {

bool MustFail(std::size_t bytes) { return qx::test::AllocationFails(qx::test::Allocator::kMalloc, bytes); }

}  // namespace

extern "C" {

// The C library's allocator under the names that it keeps for this purpose.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

#define QX_EXPORTED __attribute__((visibility("default")))

QX_EXPORTED void* malloc(std::size_t size) { return MustFail(size) ? nullptr : __libc_malloc(size); }
QX_EXPORTED void* calloc(std::size_t count, std::size_t size) {
  return MustFail(count * size) ? nullptr : __libc_calloc(count, size);
}
QX_EXPORTED void* realloc(void* block, std::size_t size) {
  return MustFail(size) ? nullptr : __libc_realloc(block, size);
}
QX_EXPORTED void* memalign(std::size_t alignment, std::size_t size) {
  return MustFail(size) ? nullptr : __libc_memalign(alignment, size);
}
QX_EXPORTED void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return MustFail(size) ? nullptr : __libc_memalign(alignment, size);
}
QX_EXPORTED int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
  void* const found = MustFail(size) ? nullptr : __libc_memalign(alignment, size);
  if (found == nullptr) return ENOMEM;
  *block = found;
  return 0;
}
QX_EXPORTED void free(void* block) { __libc_free(block); }
}
