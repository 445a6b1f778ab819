// Tests which bytes of a log are new for a follower, with the tables of TraceLogPlan.h.
#include "debug/tools/TraceLogPlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace qx::test {

namespace {

using debug::Confirms;
using debug::EndOfNew;
using debug::HasRestarted;
using debug::LogHistory;
using debug::LogPlan;
using debug::LostBytes;
using debug::PlanLog;
using debug::TraceRange;
using debug::TraceWrap;
using testing::IsEmpty;

std::optional<TraceWrap> WrapAt(std::int64_t cycle, std::uint64_t position) {
  if (cycle == 0) return std::nullopt;
  return TraceWrap{.cycle = cycle, .position = position, .line_end = position + 10, .max_bytes = 1000};
}

TEST(LogPlan, RestartIsSeenInSizeWrapsOrBeginning) {
  struct Row {
    int wraps_then;
    std::size_t size;
    int wraps_now;
    std::uint64_t wrap_position;
    char begins_with;
    bool is_restart;
  };
  const Row rows[] = {{0, 499, 0, 0, 'a', true},  {2, 900, 1, 100, 'a', true},  {0, 900, 0, 0, 'b', true},
                      {0, 900, 1, 0, 'b', false}, {0, 900, 1, 100, 'a', false}, {0, 500, 0, 0, 'a', false},
                      {1, 900, 1, 0, 'b', true},  {0, 900, 1, 100, 'b', true}};
  for (const Row& row : rows) {
    const LogHistory history{.has_started = true,
                             .copy = {},
                             .fingerprint = std::string(100, 'a'),
                             .position = 500,
                             .wrap = WrapAt(row.wraps_then, 100)};
    const std::string now(row.size, row.begins_with);
    EXPECT_EQ(HasRestarted(history, now, WrapAt(row.wraps_now, row.wrap_position)), row.is_restart)
        << row.wraps_then << " " << row.size << " " << row.wraps_now << " " << row.begins_with;
  }
}

TEST(LogPlan, NewBytesEndAfterTheLineOfTheLastDifference) {
  struct Row {
    const char* copy;
    const char* now;
    std::uint64_t begin;
    std::uint64_t limit;
    std::uint64_t end;
  };
  const Row rows[] = {
      {"ab\ncd\n", "ab\ncd\n", 0, 6, 0}, {"ab\ncd\n", "ab\ncd\nef\n", 6, 9, 9}, {"ab\ncd\n", "xy\ncd\n", 0, 6, 3},
      {"ab\n", "ab\nc", 3, 4, 3},        {"ab\ncd\n", "ab\ncx\nef", 0, 6, 6},   {"ab\ncd\n", "ab\ncx\n", 0, 3, 0},
      {"", "ab\ncd\n", 0, 6, 6}};
  for (const Row& row : rows) EXPECT_EQ(EndOfNew(row.copy, row.now, row.begin, row.limit), row.end) << row.now;
}

// Text of an earlier cycle may differ far after the newest entry; it is not new.
TEST(LogPlan, ComparisonEndsAfterALongRunOfEqualBytes) {
  const std::string same(4096, 's');
  EXPECT_EQ(EndOfNew("a\n" + same.substr(1) + "x\n", "b\n" + same.substr(1) + "y\n", 0, 4099), 2U);
  EXPECT_EQ(EndOfNew("a\n" + same.substr(2) + "x\n", "b\n" + same.substr(2) + "y\n", 0, 4098), 4098U);
}

TEST(LogPlan, LostBytesAreThoseFromThePositionToTheOldestEntry) {
  const TraceWrap wrap{.cycle = 3, .position = 100, .line_end = 200, .max_bytes = 1000};
  EXPECT_EQ(LostBytes(wrap, 1, 500, 400), 0U);
  EXPECT_EQ(LostBytes(wrap, 1, 500, 700), 200U);
  EXPECT_EQ(LostBytes(wrap, 2, 600, 300), 400U + 200U);
  EXPECT_EQ(LostBytes(wrap, 4, 600, 300), 400U + 2 * 900U + 200U);
}

std::string PlannedLine(int ms, const std::string& text) {
  return "2026-01-31 10:20:30.00" + std::to_string(ms) + " [0A1B2C3D] App           " + text + "\n";
}

LogHistory HistoryOf(const std::string& bytes) {
  return {
      .has_started = true, .copy = bytes, .fingerprint = bytes.substr(0, 256), .position = bytes.size(), .wrap = {}};
}

TEST(LogPlan, FirstSnapshotReturnsEverythingOrOnlyItsEnd) {
  const std::string log = PlannedLine(1, "one") + PlannedLine(2, "two");
  const LogPlan all = PlanLog({}, log + "an unfinished li", true);
  ASSERT_EQ(all.ranges.size(), 1U);
  EXPECT_EQ(all.ranges[0].end, log.size());
  const LogPlan from_now = PlanLog({}, log, false);
  EXPECT_THAT(from_now.ranges, IsEmpty());
  EXPECT_EQ(from_now.end, log.size());
}

TEST(LogPlan, AppendedEntriesAreOneRange) {
  const std::string old = PlannedLine(1, "one");
  const LogPlan plan = PlanLog(HistoryOf(old), old + PlannedLine(2, "two"), true);
  ASSERT_EQ(plan.ranges.size(), 1U);
  EXPECT_EQ(plan.ranges[0].begin, old.size());
  EXPECT_EQ(plan.end, plan.ranges[0].end);
  EXPECT_EQ(plan.lost_bytes, 0U);
}

// The file ended its cycle with "three", wrapped to 0 and wrote "four".
TEST(LogPlan, EndOfTheOldCycleIsBeforeTheNewOne) {
  const std::string old = PlannedLine(1, "one") + PlannedLine(2, std::string(200, '2'));
  const std::string wrap = PlannedLine(3, "------ WRAP ----- Cycle=1, CntInitEnd=0, CurrentByteCnt=0 (MaxCnt=300)");
  std::string now = old + PlannedLine(3, "three");
  now.replace(0, wrap.size() + PlannedLine(4, "four").size(), wrap + PlannedLine(4, "four"));
  const LogPlan plan = PlanLog(HistoryOf(old), now, true);
  ASSERT_EQ(plan.ranges.size(), 2U);
  EXPECT_EQ(now.substr(plan.ranges[0].begin), PlannedLine(3, "three"));
  EXPECT_EQ(plan.ranges[1].begin, 0U);
  EXPECT_EQ(plan.end, wrap.size() + PlannedLine(4, "four").size());
}

TEST(LogPlan, SecondSnapshotConfirmsOnlyTheSameBytes) {
  const std::string old = PlannedLine(1, "one");
  const std::string now = old + PlannedLine(2, "two");
  const LogPlan plan = PlanLog(HistoryOf(old), now, true);
  EXPECT_TRUE(Confirms(plan, now, now + PlannedLine(3, "three")));
  EXPECT_FALSE(Confirms(plan, now, old + PlannedLine(2, "xxx")));
  EXPECT_FALSE(Confirms(plan, now, PlannedLine(2, "one") + PlannedLine(2, "two")));
  EXPECT_FALSE(Confirms(plan, now, old));
}

TEST(LogPlan, LastEntryBeginsAtTheLastHeader) {
  const std::string log = PlannedLine(1, "one") + PlannedLine(2, "two") + "of two\n";
  const TraceRange range{TraceRange::Kind::kEntries, debug::TracePart::kNewest, 0, log.size()};
  EXPECT_EQ(debug::LastEntryBegin(log, range), PlannedLine(1, "one").size());
}

}  // namespace

}  // namespace qx::test
