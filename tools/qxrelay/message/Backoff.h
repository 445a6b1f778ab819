// Computes how long a service waits after a failure: 50 ms, twice as long after each further failure, at most 5 s, with
// jitter.
#pragma once

#include <algorithm>
#include <cstdint>

namespace qx::relay {

inline constexpr std::int64_t kBackoffMinMs = 50;
inline constexpr std::int64_t kBackoffMaxMs = 5000;

// The wait after the nth failure in a row, counted from 1. `random` is from 0 up to 1. Half of the wait is fixed, so
// that no wait is very short. The other half is random, so that many hosts do not connect together. [any thread]
//   failure 1, random 0    => 50
//   failure 3, random 0.5  => 150
//   failure 9, random 0    => 2500
[[nodiscard]] constexpr std::int64_t BackoffMs(std::uint32_t failure, double random) {
  constexpr std::uint32_t kDoublingsMax = 7;
  const std::uint32_t doublings = std::min(failure > 0 ? failure - 1 : 0, kDoublingsMax);
  const std::int64_t most = std::min(kBackoffMinMs << doublings, kBackoffMaxMs);
  const std::int64_t wait = most / 2 + static_cast<std::int64_t>(static_cast<double>(most) / 2 * random);
  return std::max(wait, kBackoffMinMs);
}

}  // namespace qx::relay
