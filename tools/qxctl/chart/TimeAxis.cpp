#include "tools/qxctl/chart/TimeAxis.h"

#include <cstdio>

namespace qx::ctl {

namespace {

constexpr std::int64_t kSecond = 1000;
constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

constexpr std::int64_t kSteps[] = {1,
                                   2,
                                   5,
                                   10,
                                   20,
                                   50,
                                   100,
                                   200,
                                   500,
                                   kSecond,
                                   2 * kSecond,
                                   5 * kSecond,
                                   10 * kSecond,
                                   15 * kSecond,
                                   30 * kSecond,
                                   kMinute,
                                   2 * kMinute,
                                   5 * kMinute,
                                   10 * kMinute,
                                   15 * kMinute,
                                   30 * kMinute,
                                   kHour,
                                   2 * kHour,
                                   3 * kHour,
                                   6 * kHour,
                                   12 * kHour,
                                   kDay,
                                   2 * kDay,
                                   7 * kDay,
                                   14 * kDay,
                                   28 * kDay,
                                   56 * kDay,
                                   91 * kDay,
                                   182 * kDay,
                                   364 * kDay,
                                   728 * kDay,
                                   3640 * kDay,
                                   36400 * kDay};

// The parts of a civil time, as text.
struct Shown {
  std::string date;      // 2026-01-31
  std::string time;      // 10:20:30
  std::string fraction;  // .123
};

Shown ShownOf(std::int64_t civil_ms) {
  const std::chrono::year_month_day day = DayOfCivil(civil_ms);
  const std::int64_t of_day = ((civil_ms % kDay) + kDay) % kDay;
  char date[32];
  char time[32];
  char fraction[32];
  std::snprintf(date, sizeof date, "%04d-%02u-%02u", static_cast<int>(day.year()), static_cast<unsigned>(day.month()),
                static_cast<unsigned>(day.day()));
  std::snprintf(time, sizeof time, "%02d:%02d:%02d", static_cast<int>(of_day / kHour),
                static_cast<int>(of_day / kMinute % 60), static_cast<int>(of_day / kSecond % 60));
  std::snprintf(fraction, sizeof fraction, ".%03d", static_cast<int>(of_day % kSecond));
  return {date, time, fraction};
}

// A label as exact as the step. At midnight the label is the day, because the other labels of that day show only the
// time.
std::string LabelOf(std::int64_t civil_ms, std::int64_t step_ms) {
  const Shown shown = ShownOf(civil_ms);
  if (step_ms < kSecond) return shown.time + shown.fraction;
  if (step_ms < kMinute) return shown.time;
  if (step_ms >= kDay) return shown.date;
  return shown.time == "00:00:00" ? shown.date.substr(5) : shown.time.substr(0, 5);
}

// The smallest step with which all labels have enough space; 0 if no step is large enough.
std::int64_t StepFor(std::int64_t range_ms, std::size_t characters) {
  for (const std::int64_t step : kSteps) {
    const std::size_t width = LabelOf(0, step).size() + 1;
    if (static_cast<std::size_t>(range_ms / step + 1) <= characters / width) return step;
  }
  return 0;
}

std::int64_t RoundedUp(std::int64_t number, std::int64_t unit) {
  const std::int64_t rest = ((number % unit) + unit) % unit;
  return rest == 0 ? number : number - rest + unit;
}

}  // namespace

std::vector<TimeTick> TimeTicks(std::int64_t first_ms, std::int64_t last_ms, std::size_t characters,
                                const TimeRules& rules) {
  std::vector<TimeTick> ticks;
  const std::int64_t step = StepFor(last_ms - first_ms, characters);
  if (step == 0) return ticks;
  const std::int64_t end = ToCivil(last_ms, rules) + kDay;  // the clock may have been set back
  for (std::int64_t civil = RoundedUp(ToCivil(first_ms, rules), step); civil <= end; civil += step) {
    const std::int64_t time_ms = ToPoint(civil, rules);
    if (time_ms > last_ms) break;
    const bool is_later = ticks.empty() ? time_ms >= first_ms : time_ms > ticks.back().time_ms;
    if (is_later) ticks.push_back({time_ms, LabelOf(civil, step)});
  }
  return ticks;
}

std::string TimeRangeText(std::int64_t first_ms, std::int64_t last_ms, const TimeRules& rules) {
  const Shown first = ShownOf(ToCivil(first_ms, rules));
  const Shown last = ShownOf(ToCivil(last_ms, rules));
  const bool is_exact = last_ms - first_ms < 10 * kSecond;
  const std::string day_of_last = last.date == first.date ? "" : last.date + " ";
  return first.date + " " + first.time + (is_exact ? first.fraction : "") + " to " + day_of_last + last.time +
         (is_exact ? last.fraction : "") + (rules.is_utc ? " UTC" : "");
}

std::string TimeText(std::int64_t time_ms, const TimeRules& rules) {
  const Shown shown = ShownOf(ToCivil(time_ms, rules));
  return shown.date + " " + shown.time;
}

}  // namespace qx::ctl
