#include "tests/provider/FailingMalloc.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace {

// Every thread reads it; the thread that is to fail sets it.
constinit std::atomic<pthread_t> failing_thread{0};
constinit std::size_t refused_bytes = 0;

bool IsRefused(std::size_t bytes) {
  if (failing_thread.load() != pthread_self() || bytes != refused_bytes) return false;
  failing_thread = 0;
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {

void* __real_malloc(std::size_t bytes);
char* __real_strdup(const char* text);

void* __wrap_malloc(std::size_t bytes) { return IsRefused(bytes) ? nullptr : __real_malloc(bytes); }
char* __wrap_strdup(const char* text) { return IsRefused(std::strlen(text) + 1) ? nullptr : __real_strdup(text); }

}  // extern "C"

namespace qx::test {

FailingMalloc::FailingMalloc(std::size_t bytes) {
  refused_bytes = bytes;
  failing_thread = pthread_self();
}

FailingMalloc::~FailingMalloc() { failing_thread = 0; }

bool FailingMalloc::HasFailed() const { return failing_thread.load() == 0; }

}  // namespace qx::test
