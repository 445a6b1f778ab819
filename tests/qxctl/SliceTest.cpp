// Tests the times of records, the times of the command line, and the records of a slice, with tables of examples.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "tools/qxctl/slice/RecordTime.h"
#include "tools/qxctl/slice/Slice.h"

namespace qx::ctl {

namespace {

using testing::ElementsAre;

constexpr std::int64_t kMinute = 60'000;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::int64_t kStamp = 1'769'854'830'000;  // 2026-01-31 10:20:30 UTC
constexpr std::int64_t kNow = kStamp + 2 * kHour;   // 12:20:30

const TimeRules kUtc = {.is_utc = true, .now_ms = kNow};

// Sets the zone of the process until the end of the scope.
class Zone {
 public:
  explicit Zone(const char* name) {
    const char* const before = std::getenv("TZ");
    before_ = before == nullptr ? "" : before;
    (void)setenv("TZ", name, 1);
    tzset();
  }
  ~Zone() {
    (void)setenv("TZ", before_.c_str(), 1);
    tzset();
  }
  Zone(const Zone&) = delete;
  Zone& operator=(const Zone&) = delete;

 private:
  std::string before_;
};

struct StampCase {
  const char* record;
  std::optional<std::int64_t> time_ms;
};

struct SpanCase {
  const char* text;
  std::int64_t first_ms;
  std::int64_t last_ms;
};

// The records that the slice prints, in its order.
std::vector<std::string> Sliced(const Slice& slice, const std::vector<std::string>& records) {
  SliceFilter filter(slice);
  SliceBuffer<std::string> buffer(slice);
  for (const std::string& record : records) {
    if (filter.Takes(record)) buffer.Add(record);
  }
  const std::deque<std::string> taken = buffer.Take();
  return {taken.begin(), taken.end()};
}

Slice Between(std::optional<std::int64_t> since_ms, std::optional<std::int64_t> until_ms) {
  Slice slice;
  slice.since_ms = since_ms;
  slice.until_ms = until_ms;
  slice.time = kUtc;
  return slice;
}

Slice WithPattern(const std::string& text) {
  auto pattern = std::make_shared<RecordPattern>();
  EXPECT_TRUE(pattern->Compile(text).IsOk());
  Slice slice;
  slice.pattern = pattern;
  return slice;
}

const std::vector<std::string> kRecords = {"no stamp yet", "2026-01-31 10:00:00 a", "2026-01-31 10:20:30 b",
                                           "  more of b", "2026-01-31 11:00:00 c"};

}  // namespace

TEST(RecordTime, StampsAtTheBeginningAreRecognised) {
  const std::vector<StampCase> cases = {
      {"2026-01-31 10:20:30 load", kStamp},
      {"2026-01-31 10:20:30.123 load", kStamp + 123},
      {"2026-01-31 10:20:30,5", kStamp + 500},
      {"2026-01-31T10:20:30.123456789Z", kStamp + 123},
      {"2026-01-31 11:20:30 +0100 load", kStamp},
      {"2026-01-31T05:50:30-04:30", kStamp},
      {"2026-01-31 10:20", kStamp - 30'000},
      {"2026/01/31 10:20:30", kStamp},
      {"[2026-01-31 10:20:30] load", kStamp},
      {"31.01.2026 10:20:30 load", kStamp},
      {"31/Jan/2026:11:20:30 +0100 GET", kStamp},
      {"20260131T102030 load", kStamp},
      {"2026-01-31 load", kStamp - 10 * kHour - 20 * kMinute - 30'000},
      {"Jan 31 10:20:30 host", kStamp},
      {"Jan  1 10:20:30 host", kStamp - 30 * kDay},
      {"Dec 31 10:20:30 host", kStamp - 31 * kDay},  // of the year before
      {"1769854830 load", kStamp},
      {"1769854830.5", kStamp + 500},
      {"2026-01-31 10:20:30 -5 degrees", kStamp},
      {"10:20:30 load", std::nullopt},
      {"load 2026-01-31 10:20:30", std::nullopt},
      {"2026-02-30 10:20:30", std::nullopt},
      {"2026-01-31 10:20:99", std::nullopt},
      {"2026-01-311", std::nullopt},
      {"17698548301 bytes", std::nullopt},
      {"", std::nullopt},
      {"[", std::nullopt},
  };
  for (const StampCase& each : cases) EXPECT_EQ(TimeOfRecord(each.record, kUtc), each.time_ms) << each.record;
}

TEST(RecordTime, EveryBeginningOfAStampIsReadWithoutHarm) {
  const std::string stamp = "[31/Jan/2026:11:20:30.123 +0100 2026-01-31T10:20:30.123456Z";
  for (std::size_t i = 0; i <= stamp.size(); ++i) (void)TimeOfRecord(stamp.substr(0, i), kUtc);
  for (std::size_t i = 0; i <= stamp.size(); ++i) (void)TimeOfRecord(stamp.substr(i), kUtc);
  SUCCEED();
}

TEST(RecordTime, StampWithoutAZoneIsLocalTime) {
  const Zone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  const TimeRules local = {.now_ms = kNow};
  EXPECT_EQ(TimeOfRecord("2026-01-31 11:20:30", local), kStamp);
  EXPECT_EQ(TimeOfRecord("2026-01-31 10:20:30Z", local), kStamp);
  EXPECT_EQ(TimeOfRecord("2026-07-31 12:20:30", local), kStamp + 181 * kDay);  // summer time
  EXPECT_EQ(TimeOfRecord("2026-01-31 10:20:30", kUtc), kStamp);
}

TEST(RecordTime, FormatReadsOtherStamps) {
  TimeRules rules = kUtc;
  rules.format = "%H:%M:%S";
  EXPECT_EQ(TimeOfRecord("10:20:30 load", rules), kStamp);
  EXPECT_EQ(TimeOfRecord("2026-01-31 10:20:30", rules), std::nullopt);
  rules.format = "at %d %b %Y %H.%M.%S %z";
  EXPECT_EQ(TimeOfRecord("at 31 Jan 2026 11.20.30 +0100 load", rules), kStamp);
  rules.format = "%d/%m %H:%M:%S";
  EXPECT_EQ(TimeOfRecord("31/12 10:20:30 load", rules), kStamp - 31 * kDay);
}

TEST(RecordTime, TimesOfTheCommandLineCoverWhatTheyName) {
  const std::int64_t midnight = kStamp - 10 * kHour - 20 * kMinute - 30'000;
  const std::vector<SpanCase> cases = {
      {"2026-01-31", midnight, midnight + kDay - 1},
      {"2026-01-31 10:20", kStamp - 30'000, kStamp + 29'999},
      {"2026-01-31T10:20:30", kStamp, kStamp + 999},
      {"2026-01-31 10:20:30.007", kStamp + 7, kStamp + 7},
      {"2026-01-31 11:20:30+01:00", kStamp, kStamp + 999},
      {"10:20", kStamp - 30'000, kStamp + 29'999},
      {"today", midnight, midnight + kDay - 1},
      {"yesterday", midnight - kDay, midnight - 1},
      {"now", kNow, kNow},
      {"-10min", kNow - 10 * kMinute, kNow - 10 * kMinute},
      {"-2h", kNow - 2 * kHour, kNow - 2 * kHour},
      {"-1d", kNow - kDay, kNow - kDay},
  };
  for (const SpanCase& each : cases) {
    const std::optional<TimeSpan> span = ParseTimeSpan(each.text, kUtc);
    ASSERT_TRUE(span) << each.text;
    EXPECT_EQ(span->first_ms, each.first_ms) << each.text;
    EXPECT_EQ(span->last_ms, each.last_ms) << each.text;
  }
  for (const char* const text :
       {"", "-", "-10", "tomorrow", "2026-01", "2026-02-30", "10", "10:20 load", "2026-01-31 1"}) {
    EXPECT_FALSE(ParseTimeSpan(text, kUtc)) << text;
  }
}

TEST(RecordTime, DayHas23HoursWhenSummerTimeBegins) {
  const Zone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  const std::optional<TimeSpan> day = ParseTimeSpan("2026-03-29", {.now_ms = kNow});
  ASSERT_TRUE(day);
  EXPECT_EQ(day->last_ms - day->first_ms, 23 * kHour - 1);
}

TEST(Slice, RecordWithoutAStampHasTheTimeOfTheOneBefore) {
  Slice slice = Between(kStamp, std::nullopt);
  EXPECT_THAT(Sliced(slice, kRecords), ElementsAre("2026-01-31 10:20:30 b", "  more of b", "2026-01-31 11:00:00 c"));
  slice = Between(std::nullopt, kStamp);
  EXPECT_THAT(Sliced(slice, kRecords), ElementsAre("2026-01-31 10:00:00 a", "2026-01-31 10:20:30 b", "  more of b"));
}

TEST(Slice, LimitsAreIncluded) {
  const Slice slice = Between(5, 7);
  EXPECT_FALSE(IsInTime(slice, 4));
  EXPECT_TRUE(IsInTime(slice, 5));
  EXPECT_TRUE(IsInTime(slice, 7));
  EXPECT_FALSE(IsInTime(slice, 8));
  EXPECT_FALSE(IsInTime(slice, std::nullopt));
  EXPECT_TRUE(IsInTime({}, std::nullopt));
}

TEST(Slice, LastCountsAfterThePatternAndReverseComesLast) {
  Slice slice = WithPattern("^[ab]=[0-9]+$");
  slice.last = 2;
  const std::vector<std::string> records = {"a=1", "x", "b=22", "a=", "b=3"};
  EXPECT_THAT(Sliced(slice, records), ElementsAre("b=22", "b=3"));
  slice.reverse = true;
  EXPECT_THAT(Sliced(slice, records), ElementsAre("b=3", "b=22"));
}

TEST(Slice, PatternSeesTheWholeTextAndNoMore) {
  const Slice slice = WithPattern("b$");
  const std::string text = "abc";
  EXPECT_TRUE(slice.pattern->Matches(std::string_view(text).substr(0, 2)));
  EXPECT_FALSE(slice.pattern->Matches(text));
  EXPECT_TRUE(WithPattern("c").pattern->Matches(std::string_view("a\0c", 3)));
}

TEST(Slice, WhatIsNoRegularExpressionIsRefusedWithItsReason) {
  RecordPattern pattern;
  const Status status = pattern.Compile("a(b");
  EXPECT_EQ(status.Code(), ExitCode::kUsage);
  EXPECT_EQ(status.Message(),
            "--grep: \"a(b\" is not a regular expression (Unmatched ( or \\(); put a \\ before a character that means "
            "itself");
}

}  // namespace qx::ctl
