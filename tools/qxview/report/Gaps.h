// Finds the gaps in a report: times without records, although records came often before and after.
//
// The usual pause of a report comes from its records: nine of ten pauses between them are not longer. A pause is a gap
// if it is longer than three usual ones and longer than two seconds. If there are many such pauses, records come in
// bursts, and the pauses between bursts are not gaps.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qx::view {

struct Gap {
  std::int64_t from = 0;  // milliseconds since 1970, of the record before
  std::int64_t to = 0;    // of the record after

  friend bool operator==(const Gap&, const Gap&) = default;
};

// Threads: one thread.
class Pauses {
 public:
  // Adds the time of the next record. [owning thread]
  void Add(std::int64_t time_ms);

  // The gaps in the order of time. [owning thread]
  [[nodiscard]] std::vector<Gap> Gaps() const;

 private:
  static constexpr std::size_t kLongestMax = 256;
  static constexpr std::size_t kSizes = 64;

  [[nodiscard]] std::int64_t GapMs() const;
  [[nodiscard]] std::int64_t LengthOfPart(std::uint64_t count) const;

  std::vector<Gap> longest_;                       // a heap: the shortest of them is the first
  std::array<std::uint64_t, kSizes> counts_ = {};  // of pauses of at most 2^i milliseconds
  std::uint64_t count_ = 0;
  std::int64_t time_ms_ = 0;
  bool has_time_ = false;
};

}  // namespace qx::view
