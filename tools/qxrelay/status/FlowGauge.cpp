#include "tools/qxrelay/status/FlowGauge.h"

#include <algorithm>

namespace qx::relay {

namespace {

constexpr std::int64_t kMsInSecond = 1000;
constexpr std::int64_t kSamplesOfAge = 16;  // the time between two old samples is at least their age divided by this

}  // namespace

void FlowGauge::Add(std::int64_t now, std::uint64_t end) {
  if (!samples_.empty() && end < samples_.back().end) samples_.clear();
  if (!samples_.empty() && end == samples_.back().end) {
    samples_.back().until = now;
    return;
  }
  samples_.push_back({.from = now, .until = now, .end = end});
  if (samples_.size() > kSamplesMax) Thin(now);
}

// Drops some of the old samples, and more of the older ones: the age of an old record need not be exact to the second.
// The samples of the time for which a rate is computed stay.
void FlowGauge::Thin(std::int64_t now) {
  std::deque<Sample> kept;
  for (const Sample& sample : samples_) {
    const std::int64_t age = now - sample.from;
    const bool is_new = age < kWindowMs + 2 * kMsInSecond;
    if (kept.empty() || is_new || sample.from - kept.back().from >= age / kSamplesOfAge) kept.push_back(sample);
  }
  while (kept.size() >= kSamplesMax) kept.pop_front();
  samples_.swap(kept);
}

std::optional<double> FlowGauge::Rate(std::int64_t now) const {
  if (samples_.empty()) return std::nullopt;
  const std::int64_t window = now - kWindowMs;
  const auto after =
      std::find_if(samples_.begin(), samples_.end(), [&](const Sample& sample) { return sample.from > window; });
  const bool is_whole = after != samples_.begin();
  const Sample& first = is_whole ? *std::prev(after) : samples_.front();
  const std::int64_t time = now - (is_whole ? window : first.from);
  if (time < kMsInSecond) return std::nullopt;
  return static_cast<double>(samples_.back().end - first.end) * kMsInSecond / static_cast<double>(time);
}

std::int64_t FlowGauge::LagMs(std::int64_t now, std::uint64_t next) const {
  if (samples_.empty() || samples_.back().end <= next) return 0;
  const auto with =
      std::find_if(samples_.begin(), samples_.end(), [&](const Sample& sample) { return sample.end > next; });
  return now - (with != samples_.begin() ? std::prev(with)->until : with->from);
}

}  // namespace qx::relay
