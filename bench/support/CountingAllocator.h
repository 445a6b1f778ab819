// How much memory the process has from the allocator, and the most it had since the last reset. A program that links
// CountingAllocator.cpp counts every malloc, calloc, realloc, free and new of its own and of the libraries it loads.
#pragma once

#include <cstddef>

namespace qx::bench {

// Usable bytes, the allocator's rounding included and its bookkeeping not. Any thread.
std::size_t BytesHeld();
std::size_t MostBytesHeld();
void ForgetMostBytesHeld();  // the most is what is held now

}  // namespace qx::bench
