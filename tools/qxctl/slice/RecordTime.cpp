#include "tools/qxctl/slice/RecordTime.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>

#include "tools/qxctl/cli/text/Duration.h"

namespace qx::ctl {

namespace {

constexpr std::int64_t kSecondMs = 1000;
constexpr std::int64_t kMinuteMs = 60 * kSecondMs;
constexpr std::int64_t kHourMs = 60 * kMinuteMs;
constexpr std::int64_t kDayMs = 24 * kHourMs;
constexpr std::size_t kStampCharsMax = 256;  // of a record that strptime reads

constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

std::int64_t FloorTo(std::int64_t ms, std::int64_t unit) {
  const std::int64_t rest = ms % unit;
  return ms - (rest < 0 ? rest + unit : rest);
}

// A date and a time as a clock shows them, and their unit.
struct Civil {
  int year = 0;
  int month = 1;
  int day = 1;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int milliseconds = 0;
  std::optional<int> east_minutes = {};  // the zone, if one was given
  std::int64_t unit_ms = kDayMs;

  // The milliseconds as if the time were UTC; unset for a date or time that does not exist, such as the 30th of
  // February.
  [[nodiscard]] std::optional<std::int64_t> Count() const {
    const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
    const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
    return days * kDayMs + hour * kHourMs + minute * kMinuteMs + second * kSecondMs + milliseconds;
  }
};

std::optional<std::int64_t> PointOf(const Civil& civil, const TimeRules& rules) {
  const std::optional<std::int64_t> count = civil.Count();
  if (!count) return std::nullopt;
  return civil.east_minutes ? *count - *civil.east_minutes * kMinuteMs : ToPoint(*count, rules);
}

std::int64_t EastMs(std::int64_t point_ms) {
  const auto seconds = static_cast<time_t>(FloorTo(point_ms, kSecondMs) / kSecondMs);
  tm local = {};
  return localtime_r(&seconds, &local) == nullptr ? 0 : local.tm_gmtoff * kSecondMs;
}

Civil DayOf(std::int64_t civil_ms) {
  const std::chrono::year_month_day date = DayOfCivil(civil_ms);
  return {.year = static_cast<int>(date.year()),
          .month = static_cast<int>(static_cast<unsigned>(date.month())),
          .day = static_cast<int>(static_cast<unsigned>(date.day()))};
}

// Takes pieces from the beginning of a text. If the requested piece is not there, nothing is taken.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  [[nodiscard]] std::string_view Rest() const { return text_; }

  bool Char(char c) {
    if (!text_.starts_with(c)) return false;
    text_.remove_prefix(1);
    return true;
  }

  bool OneOf(std::string_view chars) {
    if (text_.empty() || chars.find(text_[0]) == std::string_view::npos) return false;
    text_.remove_prefix(1);
    return true;
  }

  // Exactly `count` digits, with any character after them.
  bool Digits(std::size_t count, int& number) {
    if (text_.size() < count) return false;
    int value = 0;
    for (const char c : text_.substr(0, count)) {
      if (!IsDigit(c)) return false;
      value = value * 10 + (c - '0');
    }
    number = value;
    text_.remove_prefix(count);
    return true;
  }

  bool Month(int& month) {
    for (std::size_t i = 0; i < kMonths.size(); ++i) {
      if (!text_.starts_with(kMonths[i])) continue;
      month = static_cast<int>(i) + 1;
      text_.remove_prefix(kMonths[i].size());
      return true;
    }
    return false;
  }

  // Digits after a point or comma; only three count.
  void Fraction(int& milliseconds) {
    if (text_.size() < 2 || (text_[0] != '.' && text_[0] != ',') || !IsDigit(text_[1])) return;
    text_.remove_prefix(1);
    int value = 0;
    int digits = 0;
    for (; !text_.empty() && IsDigit(text_[0]); text_.remove_prefix(1), ++digits) {
      if (digits < 3) value = value * 10 + (text_[0] - '0');
    }
    for (; digits < 3; ++digits) value *= 10;
    milliseconds = value;
  }

 private:
  std::string_view text_;
};

// "Z", "+01:00", "+0100", " +0100"; anything else belongs to the record.
void TakeZone(Scanner& scanner, Civil& civil) {
  if (scanner.Char('Z')) {
    civil.east_minutes = 0;
    return;
  }
  Scanner attempt = scanner;
  (void)attempt.Char(' ');
  const bool is_west = attempt.Rest().starts_with('-');
  int hours = 0;
  int minutes = 0;
  if (!attempt.OneOf("+-") || !attempt.Digits(2, hours)) return;
  (void)attempt.Char(':');
  if (!attempt.Digits(2, minutes) || hours > 14 || minutes > 59) return;
  if (!attempt.Rest().empty() && IsDigit(attempt.Rest()[0])) return;
  civil.east_minutes = (is_west ? -1 : 1) * (hours * 60 + minutes);
  scanner = attempt;
}

// "10:20", "10:20:30", "10:20:30.123", each with a zone or without
bool TakeTimeOfDay(Scanner& scanner, Civil& civil) {
  Scanner attempt = scanner;
  if (!attempt.Digits(2, civil.hour) || !attempt.Char(':') || !attempt.Digits(2, civil.minute)) return false;
  civil.unit_ms = kMinuteMs;
  if (attempt.Char(':')) {
    if (!attempt.Digits(2, civil.second)) return false;
    civil.unit_ms = kSecondMs;
    const std::size_t before = attempt.Rest().size();
    attempt.Fraction(civil.milliseconds);
    if (attempt.Rest().size() != before) civil.unit_ms = 1;
  }
  TakeZone(attempt, civil);
  scanner = attempt;
  return true;
}

// "2026-01-31", "2026/01/31", with a time of day after a blank or a "T"
bool TakeYearFirst(Scanner& scanner, Civil& civil) {
  Scanner attempt = scanner;
  if (!attempt.Digits(4, civil.year)) return false;
  const char separator = attempt.Rest().starts_with('/') ? '/' : '-';
  if (!attempt.Char(separator) || !attempt.Digits(2, civil.month)) return false;
  if (!attempt.Char(separator) || !attempt.Digits(2, civil.day)) return false;
  if (!attempt.Rest().empty() && IsDigit(attempt.Rest()[0])) return false;
  scanner = attempt;
  if (attempt.OneOf(" T") && TakeTimeOfDay(attempt, civil)) scanner = attempt;
  return true;
}

// "31.01.2026 10:20:30"
bool TakeDayFirst(Scanner& scanner, Civil& civil) {
  Scanner attempt = scanner;
  if (!attempt.Digits(2, civil.day) || !attempt.Char('.') || !attempt.Digits(2, civil.month)) return false;
  if (!attempt.Char('.') || !attempt.Digits(4, civil.year) || !attempt.Char(' ')) return false;
  if (!TakeTimeOfDay(attempt, civil)) return false;
  scanner = attempt;
  return true;
}

// "31/Jan/2026:10:20:30 +0100"
bool TakeNamedMonth(Scanner& scanner, Civil& civil) {
  Scanner attempt = scanner;
  if (!attempt.Digits(2, civil.day) || !attempt.Char('/') || !attempt.Month(civil.month)) return false;
  if (!attempt.Char('/') || !attempt.Digits(4, civil.year) || !attempt.Char(':')) return false;
  if (!TakeTimeOfDay(attempt, civil)) return false;
  scanner = attempt;
  return true;
}

// "20260131T102030"
bool TakeCompact(Scanner& scanner, Civil& civil) {
  Scanner attempt = scanner;
  if (!attempt.Digits(4, civil.year) || !attempt.Digits(2, civil.month) || !attempt.Digits(2, civil.day)) return false;
  if (!attempt.Char('T') || !attempt.Digits(2, civil.hour) || !attempt.Digits(2, civil.minute)) return false;
  if (!attempt.Digits(2, civil.second)) return false;
  civil.unit_ms = kSecondMs;
  TakeZone(attempt, civil);
  scanner = attempt;
  return true;
}

// The time of a date without a year: the newest such date that is at most a day in the future, because clocks differ.
std::optional<std::int64_t> NewestPoint(Civil civil, const TimeRules& rules) {
  civil.year = DayOf(ToCivil(rules.now_ms, rules)).year;
  const std::optional<std::int64_t> point = PointOf(civil, rules);
  if (point && *point <= rules.now_ms + kDayMs) return point;
  --civil.year;
  return PointOf(civil, rules);
}

// "Jan 31 10:20:30", "Jan  1 10:20:30"
bool TakeWithoutYear(Scanner& scanner, Civil& civil) {
  Scanner attempt = scanner;
  if (!attempt.Month(civil.month) || !attempt.Char(' ')) return false;
  const bool has_day = attempt.Char(' ') ? attempt.Digits(1, civil.day) : attempt.Digits(2, civil.day);
  if (!has_day || !attempt.Char(' ') || !TakeTimeOfDay(attempt, civil)) return false;
  scanner = attempt;
  return true;
}

// "1769854830", "1769854830.123"
std::optional<std::int64_t> TakeEpoch(Scanner& scanner) {
  Scanner attempt = scanner;
  int high = 0;
  int low = 0;
  int milliseconds = 0;
  if (!attempt.Digits(5, high) || !attempt.Digits(5, low)) return std::nullopt;
  attempt.Fraction(milliseconds);
  if (!attempt.Rest().empty() && std::string_view(" \t,;]\r\n").find(attempt.Rest()[0]) == std::string_view::npos) {
    return std::nullopt;
  }
  scanner = attempt;
  return (std::int64_t{high} * 100'000 + low) * kSecondMs + milliseconds;
}

bool NamesYear(std::string_view format) { return format.find_first_of("YyFDcsxGg") != std::string_view::npos; }

// Reads a stamp by a format of strptime. What the format does not name is that of today at midnight.
std::optional<RecordStamp> StampByFormat(std::string_view record, const TimeRules& rules) {
  const Civil today = DayOf(ToCivil(rules.now_ms, rules));
  tm parsed = {};
  parsed.tm_year = today.year - 1900;
  parsed.tm_mon = today.month - 1;
  parsed.tm_mday = today.day;
  const std::string text(record.substr(0, std::min(record.size(), kStampCharsMax)));
  const char* const end = strptime(text.c_str(), rules.format.c_str(), &parsed);
  if (end == nullptr) return std::nullopt;
  Civil civil = {parsed.tm_year + 1900, parsed.tm_mon + 1, parsed.tm_mday,
                 parsed.tm_hour,        parsed.tm_min,     parsed.tm_sec};
  const bool has_zone = rules.format.find("%z") != std::string::npos;
  if (has_zone) civil.east_minutes = static_cast<int>(parsed.tm_gmtoff / 60);
  const bool names_month = rules.format.find_first_of("bBhm") != std::string::npos;
  const auto point = names_month && !NamesYear(rules.format) ? NewestPoint(civil, rules) : PointOf(civil, rules);
  if (!point) return std::nullopt;
  return RecordStamp{*point, static_cast<std::size_t>(end - text.c_str())};
}

// One of the recognised stamps.
std::optional<std::int64_t> TakeStamp(Scanner& scanner, const TimeRules& rules) {
  for (const auto take : {TakeYearFirst, TakeDayFirst, TakeNamedMonth, TakeCompact}) {
    Civil civil;
    if (take(scanner, civil)) return PointOf(civil, rules);
  }
  Civil civil;
  if (TakeWithoutYear(scanner, civil)) return NewestPoint(civil, rules);
  return TakeEpoch(scanner);
}

TimeSpan SpanFrom(std::int64_t first_ms, std::int64_t unit_ms) { return {first_ms, first_ms + unit_ms - 1}; }

// The day `days_ago` days before today. Not every day has 24 hours.
std::optional<TimeSpan> DaySpan(int days_ago, const TimeRules& rules) {
  const std::int64_t begin = FloorTo(ToCivil(rules.now_ms, rules), kDayMs) - days_ago * kDayMs;
  return TimeSpan{ToPoint(begin, rules), ToPoint(begin + kDayMs, rules) - 1};
}

}  // namespace

std::int64_t NowMs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

std::int64_t ToPoint(std::int64_t civil_ms, const TimeRules& rules) {
  if (rules.is_utc) return civil_ms;
  const std::int64_t near = civil_ms - EastMs(civil_ms);
  return civil_ms - EastMs(near);
}

std::int64_t ToCivil(std::int64_t point_ms, const TimeRules& rules) {
  return rules.is_utc ? point_ms : point_ms + EastMs(point_ms);
}

std::chrono::year_month_day DayOfCivil(std::int64_t civil_ms) {
  return std::chrono::sys_days{std::chrono::days(FloorTo(civil_ms, kDayMs) / kDayMs)};
}

std::optional<RecordStamp> StampOfRecord(std::string_view record, const TimeRules& rules) {
  if (!rules.format.empty()) return StampByFormat(record, rules);
  Scanner scanner(record);
  const bool has_bracket = scanner.Char('[');
  const std::optional<std::int64_t> time_ms = TakeStamp(scanner, rules);
  if (!time_ms) return std::nullopt;
  if (has_bracket) (void)scanner.Char(']');
  return RecordStamp{*time_ms, record.size() - scanner.Rest().size()};
}

std::optional<std::int64_t> TimeOfRecord(std::string_view record, const TimeRules& rules) {
  const std::optional<RecordStamp> stamp = StampOfRecord(record, rules);
  if (!stamp) return std::nullopt;
  return stamp->time_ms;
}

std::optional<TimeSpan> ParseTimeSpan(std::string_view text, const TimeRules& rules) {
  if (text == "now") return TimeSpan{rules.now_ms, rules.now_ms};
  if (text == "today") return DaySpan(0, rules);
  if (text == "yesterday") return DaySpan(1, rules);
  if (text.starts_with('-')) {
    const std::optional<std::int64_t> seconds = ParseDuration(text.substr(1));
    if (!seconds) return std::nullopt;
    return TimeSpan{rules.now_ms - *seconds * kSecondMs, rules.now_ms - *seconds * kSecondMs};
  }
  Scanner scanner(text);
  Civil civil;
  if (!TakeYearFirst(scanner, civil)) {
    civil = DayOf(ToCivil(rules.now_ms, rules));
    if (!TakeTimeOfDay(scanner, civil)) return std::nullopt;
  }
  const std::optional<std::int64_t> first = PointOf(civil, rules);
  if (!first || !scanner.Rest().empty()) return std::nullopt;
  if (civil.unit_ms != kDayMs) return SpanFrom(*first, civil.unit_ms);
  return TimeSpan{*first, ToPoint(*civil.Count() + kDayMs, rules) - 1};
}

}  // namespace qx::ctl
