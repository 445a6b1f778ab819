// Counts how much memory is allocated in the process now, and the peak since the last reset. In a program that links
// CountingAllocator.cpp, every malloc, calloc, realloc, free and new counts, also those of the libraries it loads.
// Exception: an over-aligned allocation (aligned_alloc, posix_memalign, new with std::align_val_t) is not added when it
// is made, but is subtracted when it is freed.
#pragma once

#include <cstddef>

namespace qx::bench {

// The functions count usable bytes: with the allocator's rounding, without its bookkeeping. [any thread]
std::size_t BytesHeld();
std::size_t PeakBytesHeld();
void ResetPeakBytesHeld();  // the peak becomes the present amount

}  // namespace qx::bench
