// Tests the fields of records and the axis of time with tables of examples.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "tools/qxctl/chart/RecordFields.h"
#include "tools/qxctl/chart/Sparkline.h"
#include "tools/qxctl/chart/TimeAxis.h"

namespace qx::ctl {

namespace {

constexpr std::int64_t kTickSecond = 1000;
constexpr std::int64_t kTickMinute = 60 * kTickSecond;
constexpr std::int64_t kTickHour = 60 * kTickMinute;
constexpr std::int64_t kTickDay = 24 * kTickHour;
constexpr std::int64_t kTickStart = 1'769'854'830'000;  // 2026-01-31 10:20:30 UTC

const TimeRules kFieldTime = {.is_utc = true, .now_ms = kTickStart};

// "cpu integer 12% | state text ok"
std::string FieldsText(std::string_view text, const std::string& separator = "") {
  std::string shown;
  for (const RecordField& field : ParseFields(text, {separator, kFieldTime})) {
    shown += (shown.empty() ? "" : " | ") + field.name + " " + std::string(NameOf(field.type)) + " " +
             std::string(field.value);
  }
  return shown;
}

struct FieldCase {
  const char* text;
  const char* fields;
};

std::string TicksText(std::int64_t first_ms, std::int64_t last_ms, std::size_t characters,
                      const TimeRules& rules = kFieldTime) {
  std::string text;
  for (const TimeTick& tick : TimeTicks(first_ms, last_ms, characters, rules)) {
    text += (text.empty() ? "" : " ") + std::to_string(tick.time_ms - first_ms) + "=" + tick.label;
  }
  return text;
}

std::string Repeated(const std::string& piece, std::size_t bytes) {
  std::string text;
  while (text.size() < bytes) text += piece;
  return text;
}

}  // namespace

TEST(RecordFields, NamesWithValues) {
  const FieldCase cases[] = {
      {"09:00 cpu=12% load 0.12", "cpu integer 12% | load number 0.12"},
      {"2026-01-31 10:20:30 cpu=1", "cpu integer 1"},
      {"[2026-01-31 10:20:30] a=-2 b=+3 c=1e3", "a integer -2 | b integer +3 | c number 1e3"},
      {"free: 7 GB, used : 3", "free integer 7 | used integer 3"},
      {"state=ok path=\"a b\" empty= last=", "state text ok | path text a b | empty text  | last text "},
      {"a = b c = 5", "a text b | c integer 5"},
      {"a= b=c", "a text  | b text c"},
      {"(cpu=12%, list=[1,2], f(x)=3)", "cpu integer 12% | list text [1"},
      {"say=\"a \\\" b\" k=v", "say text a \\\" b | k text v"},
      {"open=\"a b", "open text \"a"},
      {"\"quoted load 5\" load 6", "load integer 6"},
      {"from 10.0.0.1:80 at 9:00 took 5 s.", "took integer 5"},
      {"x=10.0.0.1 y=0x1F z=5m30s n=nan i=inf",
       "x text 10.0.0.1 | y text 0x1F | z text 5m30s | n text nan | i text inf"},
      {"http://host/a=b failed: disk full", ""},
      {"gr\xC3\xB6\xC3\x9F"
       "e=5 disk/sda=7kB/s cpu%=3",
       "gr\xC3\xB6\xC3\x9F"
       "e integer 5 | disk/sda integer 7kB/s | cpu% integer 3"},
      {"a=1 a=2 b=x b=3", "a integer 1 | b text x"},
      {"(a=1) (b=f(x)) [c=x]", "a integer 1 | b text f(x) | c text x"},
      {"", ""},
      {"no fields here", ""},
      {"=5 :6 7", ""},
  };
  for (const FieldCase& each : cases) EXPECT_EQ(FieldsText(each.text), each.fields) << each.text;
}

TEST(RecordFields, ColumnsBySeparator) {
  EXPECT_EQ(FieldsText("09:00;7; 8% ;x y;", ";"), "1 text 09:00 | 2 integer 7 | 3 integer 8% | 4 text x y | 5 text ");
}

// A chart finds the number of a field by its name alone, so the name must find it.
TEST(RecordFields, NumberOfAFieldIsTheOneThatItsNameFinds) {
  for (const std::string_view text :
       {"09:00 cpu=12% load 0.12 free: 7 GB, used : 3", "a=-2 b=+3 c=1e3 (d=5) e =6", "disk/sda=7kB/s cpu%=3"}) {
    for (const RecordField& field : ParseFields(text, {"", kFieldTime})) {
      EXPECT_EQ(NumberOfKey(text, field.name), field.number) << field.name;
    }
  }
}

TEST(RecordFields, HostileTextCostsLinearTime) {
  const std::clock_t begin = std::clock();
  for (const char* const piece : {"a=\"", "a:", "a ", "a=)", "\"", "a=(", "a b=", "\"\\", "a1", "=", ": "}) {
    const std::string text = Repeated(piece, 20'000);
    (void)ParseFields(text, {"", kFieldTime});
    (void)NumberOfKey(text, "a");
  }
  (void)ParseFields("a=" + Repeated(")", 40'000), {"", kFieldTime});
  EXPECT_LT(static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC, 2);
}

TEST(TimeAxis, TicksAreRoundTimesThatFit) {
  EXPECT_EQ(TicksText(kTickStart, kTickStart + 20 * kTickMinute, 30),
            "270000=10:25 570000=10:30 870000=10:35 1170000=10:40");
  EXPECT_EQ(TicksText(kTickStart, kTickStart + 20 * kTickMinute, 14), "570000=10:30");
  EXPECT_EQ(TicksText(kTickStart, kTickStart + 2 * kTickSecond, 30), "0=10:20:30 1000=10:20:31 2000=10:20:32");
  EXPECT_EQ(TicksText(kTickStart, kTickStart + 20, 30), "0=10:20:30.000 20=10:20:30.020");
  EXPECT_EQ(TicksText(kTickStart, kTickStart + 3 * kTickDay, 44),
            "5970000=12:00 49170000=02-01 92370000=12:00 135570000=02-02 178770000=12:00 221970000=02-03");
  EXPECT_EQ(TicksText(kTickStart, kTickStart + 30 * kTickDay, 44), "999570000=2026-02-12 2209170000=2026-02-26");
  EXPECT_EQ(TicksText(kTickStart, kTickStart + kTickHour, 5), "");
}

TEST(TimeAxis, TicksAreLocalTimesAlsoWhenTheClockIsSetBack) {
  const char* const before = std::getenv("TZ");
  const std::string kept = before == nullptr ? "" : before;
  (void)setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  const TimeRules local = {.now_ms = kTickStart};
  const std::int64_t midnight = 1'792'879'200'000;  // 2026-10-25 00:00 in summer time; at 03:00 it is 02:00 again
  EXPECT_EQ(TicksText(midnight, midnight + 5 * kTickHour, 40, local),
            "0=10-25 3600000=01:00 10800000=02:00 14400000=03:00 18000000=04:00");
  EXPECT_EQ(TimeRangeText(midnight, midnight + 5 * kTickHour, local), "2026-10-25 00:00:00 to 04:00:00");
  (void)setenv("TZ", kept.c_str(), 1);
  tzset();
}

TEST(TimeAxis, RangeNamesADayOnce) {
  EXPECT_EQ(TimeRangeText(kTickStart, kTickStart + kTickMinute, kFieldTime), "2026-01-31 10:20:30 to 10:21:30 UTC");
  EXPECT_EQ(TimeRangeText(kTickStart, kTickStart + kTickDay, kFieldTime),
            "2026-01-31 10:20:30 to 2026-02-01 10:20:30 UTC");
  EXPECT_EQ(TimeRangeText(kTickStart, kTickStart + 1, kFieldTime), "2026-01-31 10:20:30.000 to 10:20:30.001 UTC");
}

TEST(Sparkline, OneCharacterForEachOfTheNewestValues) {
  EXPECT_EQ(Sparkline({}, 8, false), "");
  EXPECT_EQ(Sparkline({1, 2, 3, 4, 5, 6, 7, 8}, 8, true), "▁▂▃▄▅▆▇█");
  EXPECT_EQ(Sparkline({1, 2, 3, 4, 5, 6, 7, 8}, 8, false), "_.,-=+*#");
  EXPECT_EQ(Sparkline({9, 0, 100}, 2, true), "▁█");
  EXPECT_EQ(Sparkline({5, 5}, 8, true), "▄▄");
  EXPECT_EQ(Sparkline({-1.7e308, 0, 1.7e308}, 8, true), "▁▅█");
}

}  // namespace qx::ctl
