// Replaces malloc and strdup for the program's own objects. The program is linked with --wrap for both.
#include <cstring>

#include "tests/support/FailingAllocator.h"

using qx::test::AllocationFails;
using qx::test::Allocator;

extern "C" {

void* __real_malloc(std::size_t bytes);
char* __real_strdup(const char* text);

void* __wrap_malloc(std::size_t bytes) {
  return AllocationFails(Allocator::kMalloc, bytes) ? nullptr : __real_malloc(bytes);
}
char* __wrap_strdup(const char* text) {
  return AllocationFails(Allocator::kMalloc, std::strlen(text) + 1) ? nullptr : __real_strdup(text);
}

}  // extern "C"
