#include "tools/qxview/report/Gaps.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace qx::view {

namespace {

constexpr std::int64_t kGapMsMin = 2000;
constexpr std::int64_t kTimesUsual = 3;

bool IsLonger(const Gap& left, const Gap& right) { return left.to - left.from > right.to - right.from; }

// The smallest i for which 2^i is at least length_ms.
std::size_t SizeOf(std::int64_t length_ms) {
  return static_cast<std::size_t>(std::bit_width(static_cast<std::uint64_t>(length_ms) - 1));
}

}  // namespace

void Pauses::Add(std::int64_t time_ms) {
  const std::int64_t before = std::exchange(time_ms_, time_ms);
  if (!std::exchange(has_time_, true) || time_ms <= before) return;
  ++counts_[std::min(SizeOf(time_ms - before), kSizes - 1)];
  ++count_;
  if (time_ms - before < kGapMsMin) return;
  longest_.push_back({.from = before, .to = time_ms});
  std::push_heap(longest_.begin(), longest_.end(), IsLonger);
  if (longest_.size() <= kLongestMax) return;
  std::pop_heap(longest_.begin(), longest_.end(), IsLonger);
  longest_.pop_back();
}

// A length, a power of two, that is not exceeded by the `count` shortest pauses.
std::int64_t Pauses::LengthOfPart(std::uint64_t count) const {
  std::uint64_t seen = 0;
  std::size_t size = 0;
  for (; size + 2 < kSizes && seen + counts_[size] < count; ++size) seen += counts_[size];
  return std::int64_t{1} << size;
}

std::int64_t Pauses::GapMs() const {
  constexpr std::uint64_t kSomeMax = 3;  // more long pauses than this are pauses between bursts, not gaps
  const std::int64_t usual = LengthOfPart(count_ - count_ / 10);
  const std::int64_t gap = std::max(kGapMsMin, usual > INT64_MAX / kTimesUsual ? INT64_MAX : kTimesUsual * usual);
  const auto is_long = [&](const Gap& pause) { return pause.to - pause.from > gap; };
  const auto found = static_cast<std::uint64_t>(std::count_if(longest_.begin(), longest_.end(), is_long));
  if (found <= std::max(kSomeMax, count_ / 100)) return gap;
  const std::int64_t between_bursts = LengthOfPart(count_ - found / 2);
  return between_bursts > INT64_MAX / kTimesUsual ? INT64_MAX : kTimesUsual * between_bursts;
}

std::vector<Gap> Pauses::Gaps() const {
  std::vector<Gap> gaps;
  const std::int64_t gap_ms = GapMs();
  for (const Gap& pause : longest_) {
    if (pause.to - pause.from > gap_ms) gaps.push_back(pause);
  }
  std::sort(gaps.begin(), gaps.end(), [](const Gap& left, const Gap& right) { return left.from < right.from; });
  return gaps;
}

}  // namespace qx::view
