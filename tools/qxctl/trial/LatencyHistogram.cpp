#include "tools/qxctl/trial/LatencyHistogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace qx::ctl {

namespace {

// The exponent of the highest power of two that the time reaches; 0 also for a time of 0.
unsigned OctaveOf(std::uint64_t nanoseconds) {
  return static_cast<unsigned>(std::bit_width(std::max<std::uint64_t>(nanoseconds, 1))) - 1;
}

}  // namespace

std::size_t LatencyHistogram::BucketOf(std::uint64_t nanoseconds) {
  const auto width = static_cast<unsigned>(std::bit_width(nanoseconds));
  const unsigned shift = width > kSubBucketBits + 1 ? width - kSubBucketBits - 1 : 0;
  return (std::size_t{shift} << kSubBucketBits) + static_cast<std::size_t>(nanoseconds >> shift);
}

std::uint64_t LatencyHistogram::LastOf(std::size_t bucket) {
  constexpr std::size_t kExact = std::size_t{2} << kSubBucketBits;
  if (bucket < kExact) return bucket;
  const std::size_t shift = (bucket >> kSubBucketBits) - 1;
  const std::uint64_t leading = bucket - (shift << kSubBucketBits);
  return (leading << shift) + ((std::uint64_t{1} << shift) - 1);
}

void LatencyHistogram::Add(std::uint64_t nanoseconds) {
  ++buckets_[BucketOf(nanoseconds)];
  ++count_;
  max_ = std::max(max_, nanoseconds);
}

void LatencyHistogram::Add(const LatencyHistogram& other) {
  for (std::size_t i = 0; i < kBuckets; ++i) buckets_[i] += other.buckets_[i];
  count_ += other.count_;
  max_ = std::max(max_, other.max_);
}

std::uint64_t LatencyHistogram::Percentile(double share) const {
  const auto rank = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(count_)));
  std::uint64_t seen = 0;
  for (std::size_t i = 0; i < kBuckets; ++i) {
    seen += buckets_[i];
    if (seen != 0 && seen >= rank) return std::min(LastOf(i), max_);
  }
  return max_;
}

std::vector<LatencyHistogram::Bucket> LatencyHistogram::Octaves() const {
  std::vector<Bucket> octaves;
  for (unsigned octave = 0; octave < 64; ++octave) {
    const std::uint64_t first = std::uint64_t{1} << octave;
    octaves.push_back({octave == 0 ? 0 : first, first + (first - 1), 0});
  }
  for (std::size_t i = 0; i < kBuckets; ++i) octaves[OctaveOf(LastOf(i))].count += buckets_[i];
  const auto is_empty = [](const Bucket& bucket) { return bucket.count == 0; };
  octaves.erase(std::find_if_not(octaves.rbegin(), octaves.rend(), is_empty).base(), octaves.end());
  octaves.erase(octaves.begin(), std::find_if_not(octaves.begin(), octaves.end(), is_empty));
  return octaves;
}

}  // namespace qx::ctl
