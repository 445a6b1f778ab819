// Chooses the ticks of the axis of time of a chart, and writes times.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/qxctl/slice/RecordTime.h"

namespace qx::ctl {

struct TimeTick {
  std::int64_t time_ms = 0;
  std::string label;
};

// The ticks of the axis: round times from `first_ms` to `last_ms`, as many as have space. Their labels, with at least
// one blank between two of them, take at most `characters`.
//   10:20:30 to 10:49:00 the same day, 40  => 10:25, 10:30, 10:35, 10:40, 10:45
//   two days from 10:20 on, 40             => 12:00, 01-31, 12:00, 02-01
//   a month, 40                            => 2026-02-12, 2026-02-26
[[nodiscard]] std::vector<TimeTick> TimeTicks(std::int64_t first_ms, std::int64_t last_ms, std::size_t characters,
                                              const TimeRules& rules);

// "2026-01-31 10:20:30 to 10:49:00", with " UTC" if the rules say so; a range below ten seconds is shown with
// milliseconds.
[[nodiscard]] std::string TimeRangeText(std::int64_t first_ms, std::int64_t last_ms, const TimeRules& rules);

// "2026-01-31 10:20:30"
[[nodiscard]] std::string TimeText(std::int64_t time_ms, const TimeRules& rules);

}  // namespace qx::ctl
