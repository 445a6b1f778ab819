// The whole program's operator new, made to fail on demand. A source of its own, lest the compiler sees through it.
#pragma once

#include <atomic>

namespace qx::test {

// How many more allocations succeed before one fails; negative: none fails.
std::atomic<long>& AllocationsLeft();

}  // namespace qx::test
