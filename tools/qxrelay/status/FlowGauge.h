// Computes how fast a report grows, and how long its oldest record has waited, from counts at some moments.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>

namespace qx::relay {

// Threads: one thread. Owns: at most kSamplesMax samples of 24 bytes. Times are milliseconds of the monotonic clock.
// Throws std::bad_alloc.
class FlowGauge {
 public:
  static constexpr std::int64_t kWindowMs = 60'000;
  static constexpr std::size_t kSamplesMax = 256;

  // Adds a count: the number of the record that the writer appends next. If it is smaller than before, the store is
  // another one, and the samples begin again. [owning thread]
  void Add(std::int64_t now, std::uint64_t end);

  // Records a second over the last minute, or since the first count; unset until a second has passed. [owning thread]
  [[nodiscard]] std::optional<double> Rate(std::int64_t now) const;

  // How long ago the record `next` was appended, or a little more: the time since the last count without it. If already
  // the first count includes it, the time since that count, which is less. 0 if the record is not appended yet. [owning
  // thread]
  [[nodiscard]] std::int64_t LagMs(std::int64_t now, std::uint64_t next) const;

 private:
  // A count, and the time from the first to the last moment at which it was seen.
  struct Sample {
    std::int64_t from = 0;
    std::int64_t until = 0;
    std::uint64_t end = 0;
  };

  void Thin(std::int64_t now);

  std::deque<Sample> samples_;
};

}  // namespace qx::relay
