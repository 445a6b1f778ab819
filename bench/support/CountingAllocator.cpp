#include "bench/support/CountingAllocator.h"

#include <malloc.h>

#include <atomic>

// These are the C library's own functions, which the functions below call.
extern "C" {
void* __libc_malloc(std::size_t size);                     // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(std::size_t count, std::size_t size);  // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* block, std::size_t size);       // NOLINT(bugprone-reserved-identifier)
void __libc_free(void* block);                             // NOLINT(bugprone-reserved-identifier)
}

namespace {

constinit std::atomic<std::size_t> held{0};
constinit std::atomic<std::size_t> peak{0};

void* CountAllocated(void* block) {
  const std::size_t now = held += malloc_usable_size(block);
  std::size_t before = peak;
  while (before < now && !peak.compare_exchange_weak(before, now)) {
  }
  return block;
}

void CountFreed(void* block) { held -= malloc_usable_size(block); }

}  // namespace

extern "C" {

void* malloc(std::size_t size) { return CountAllocated(__libc_malloc(size)); }

void* calloc(std::size_t count, std::size_t size) { return CountAllocated(__libc_calloc(count, size)); }

void* realloc(void* block, std::size_t size) {
  const std::size_t before = malloc_usable_size(block);
  void* const grown = __libc_realloc(block, size);
  if (grown == nullptr && size > 0) return nullptr;  // the old block is still allocated
  held -= before;
  return CountAllocated(grown);
}

void free(void* block) {
  CountFreed(block);
  __libc_free(block);
}

}  // extern "C"

namespace qx::bench {

std::size_t BytesHeld() { return held; }
std::size_t PeakBytesHeld() { return peak; }
void ResetPeakBytesHeld() { peak = held.load(); }

}  // namespace qx::bench
