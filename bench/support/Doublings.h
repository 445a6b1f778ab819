// Lists the sizes of the rows that measure growth. The second size of each pair is twice the first.
#pragma once

#include <cstdint>

namespace qx::bench {

constexpr std::int64_t kDoublings[] = {1000, 2000, 10000, 20000, 100000, 200000, 500000, 1000000};

}  // namespace qx::bench
