// Reads the time of a record, which is a stamp at the beginning of its text, and times of a command line.
//
// A time is milliseconds since 1970 in UTC. A text without a zone is local time, or UTC if the rules say so.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qx::ctl {

struct TimeRules {
  bool is_utc = false;      // whether a time without a zone is UTC
  std::string format = {};  // of the stamps, for strptime; empty: the recognised ones
  std::int64_t now_ms = 0;  // for relative times, and for stamps without a year
};

[[nodiscard]] std::int64_t NowMs();

// The point in time of a civil time. A civil time is what a clock shows, in milliseconds as if the clock showed UTC.
//   1769854830000 (2026-01-31 10:20:30), an hour east of Greenwich => 1769851230000
[[nodiscard]] std::int64_t ToPoint(std::int64_t civil_ms, const TimeRules& rules);

// The reverse: the civil time at a point in time.
[[nodiscard]] std::int64_t ToCivil(std::int64_t point_ms, const TimeRules& rules);

// The day of a civil time.
[[nodiscard]] std::chrono::year_month_day DayOfCivil(std::int64_t civil_ms);

// A stamp at the beginning of a text.
struct RecordStamp {
  std::int64_t time_ms = 0;
  std::size_t bytes = 0;  // of the stamp, with the brackets around it
};

// The recognised stamps, each also after a "[":
//   2026-01-31 10:20:30.123        2026/01/31 10:20         2026-01-31T10:20:30Z     2026-01-31 10:20:30 +0100
//   31.01.2026 10:20:30            31/Jan/2026:10:20:30     20260131T102030          2026-01-31
//   Jan 31 10:20:30 (the newest such date, at most a day ahead)     1769854830.123 (seconds since 1970)
// Unset for anything else. A time of day alone is no stamp: it does not name a day.
[[nodiscard]] std::optional<RecordStamp> StampOfRecord(std::string_view record, const TimeRules& rules);
[[nodiscard]] std::optional<std::int64_t> TimeOfRecord(std::string_view record, const TimeRules& rules);

// The span that a time on the command line covers: a day, a minute, a second or a millisecond, both ends included.
struct TimeSpan {
  std::int64_t first_ms = 0;
  std::int64_t last_ms = 0;
};

//   "2026-01-31" => that day       "2026-01-31 10:20" => that minute      "10:20:30" => that second of today
//   "today", "yesterday" => a day  "-10min", "now" => a millisecond
// Unset for anything else.
[[nodiscard]] std::optional<TimeSpan> ParseTimeSpan(std::string_view text, const TimeRules& rules);

}  // namespace qx::ctl
