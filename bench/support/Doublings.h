// The sizes of the rows that measure growth: each second one is twice the one before it.
#pragma once

#include <cstdint>

namespace qx::bench {

constexpr std::int64_t kDoublings[] = {1000, 2000, 10000, 20000, 100000, 200000, 500000, 1000000};

}  // namespace qx::bench
