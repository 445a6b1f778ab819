// How long calls took, in bounded memory whatever their number.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qx::ctl {

// A log-linear histogram of times in nanoseconds: 32 buckets of equal width for each power of two, so a time that is
// read back is off by a thirty-second at most. 15 KiB, from one nanosecond to centuries.
//
// Threads: one thread; each worker has one of its own, and they are added up at the end.
class LatencyHistogram {
 public:
  struct Bucket {
    std::uint64_t from_ns;  // first time that falls into it
    std::uint64_t to_ns;    // last one
    std::uint64_t count;
  };

  void Add(std::uint64_t nanoseconds);
  void Add(const LatencyHistogram& other);

  std::uint64_t Count() const { return count_; }
  std::uint64_t Max() const { return max_; }

  // The time that `share` of the calls (0 to 1) did not exceed, rounded up to its bucket's end and never above Max().
  // 0 without calls.
  std::uint64_t Percentile(double share) const;

  // One bucket a power of two, from the first that holds a call to the last.
  std::vector<Bucket> Octaves() const;

 private:
  static constexpr unsigned kSubBucketBits = 5;
  static constexpr std::size_t kBuckets = (64 - kSubBucketBits) * 32 + 32;

  // 0..63 are exact; above, 5 bits after the leading one count:  64,65 => 64   66,67 => 65   128..131 => 96
  static std::size_t BucketOf(std::uint64_t nanoseconds);
  static std::uint64_t LastOf(std::size_t bucket);

  std::array<std::uint64_t, kBuckets> buckets_{};
  std::uint64_t count_ = 0;
  std::uint64_t max_ = 0;
};

}  // namespace qx::ctl
