// Collects the times of any number of calls in bounded memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qx::ctl {

// A log-linear histogram of times in nanoseconds: 32 buckets of equal width for each power of two, so a time is at most
// 1/32 too high or too low. It takes 15 KiB, and covers one nanosecond to centuries.
//
// Threads: one thread; each worker has its own, and they are added at the end.
class LatencyHistogram {
 public:
  struct Bucket {
    std::uint64_t from_ns;  // its shortest time
    std::uint64_t to_ns;    // its longest time
    std::uint64_t count;
  };

  void Add(std::uint64_t nanoseconds);
  void Add(const LatencyHistogram& other);

  std::uint64_t Count() const { return count_; }
  std::uint64_t Max() const { return max_; }

  // The time that `share` of the calls (0 to 1) did not exceed, rounded up to its bucket's end and never above Max().
  // 0 without calls.
  std::uint64_t Percentile(double share) const;

  // One bucket for each power of two, from the first that has a call to the last.
  std::vector<Bucket> Octaves() const;

 private:
  static constexpr unsigned kSubBucketBits = 5;
  static constexpr std::size_t kBuckets = (64 - kSubBucketBits) * 32 + 32;

  // 0 to 63 have a bucket each. Above, the five bits after the leading one choose it:  64,65 => 64   66,67 => 65
  // 128..131 => 96
  static std::size_t BucketOf(std::uint64_t nanoseconds);
  static std::uint64_t LastOf(std::size_t bucket);

  std::array<std::uint64_t, kBuckets> buckets_{};
  std::uint64_t count_ = 0;
  std::uint64_t max_ = 0;
};

}  // namespace qx::ctl
