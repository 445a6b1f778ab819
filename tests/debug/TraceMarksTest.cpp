// Tests the marks of a trace file's lines and the decisions from them, with the tables of TraceMarks.h.
#include "debug/tools/TraceMarks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qx::test {

namespace {

using debug::Boundary;
using debug::CycleBegin;
using debug::EndOfNewest;
using debug::HasOneStamp;
using debug::KeptMarks;
using debug::LogMarks;
using debug::NoteEntry;
using debug::NoteKept;

constexpr std::uint64_t kWrapEnd = 100;
constexpr std::int64_t kWrapStamp = 5;

// The marks of entries that begin at 200, 210, ... Each character is a stamp, or "?" for an unknown one. A "+" before
// it means that there are lines without a header before the entry.
LogMarks MarksOf(const std::string& entries) {
  LogMarks marks = debug::StartLogMarks({.cycle = 1, .position = 50, .line_end = kWrapEnd}, kWrapStamp);
  std::uint64_t begin = 200;
  bool follows_lines = false;
  for (const char c : entries) {
    if (c == '+') {
      follows_lines = true;
      continue;
    }
    const auto stamp = c == '?' ? std::nullopt : std::optional<std::int64_t>(c - '0');
    NoteEntry(marks, {.begin = begin, .line_end = begin + 10, .stamp_ms = stamp, .follows_lines = follows_lines});
    follows_lines = false;
    begin += 10;
  }
  marks.end = begin;
  return marks;
}

// The boundary before the entry of this index in MarksOf.
Boundary Before(int index) {
  const auto begin = static_cast<std::uint64_t>(200 + 10 * index);
  return {index == 0 ? kWrapEnd : begin, begin};
}

TEST(LogMarks, FirstBoundaryOfEachKindIsKept) {
  struct Row {
    const char* entries;
    Boundary drop;
    Boundary lines;
    Boundary both;
    int drops;
  };
  const Boundary none;
  const Row rows[] = {
      {"", none, none, none, 0},
      {"6723", Before(2), none, none, 1},
      {"6+23", Before(1), Before(1), Before(1), 1},
      {"62+31", Before(1), Before(2), none, 2},
      {"62+1", Before(1), Before(2), Before(2), 2},
      {"6?2", Before(2), none, none, 1},
      {"4", Before(0), none, none, 1},
      {"+5+5", none, Before(0), none, 0},
  };
  for (const Row& row : rows) {
    const LogMarks marks = MarksOf(row.entries);
    EXPECT_EQ(marks.drop, row.drop) << row.entries;
    EXPECT_EQ(marks.lines, row.lines) << row.entries;
    EXPECT_EQ(marks.drop_with_lines, row.both) << row.entries;
    EXPECT_EQ(marks.drops, row.drops) << row.entries;
  }
}

TEST(LogMarks, OneStampMeansEveryEntryHasThatOfTheWrap) {
  EXPECT_TRUE(HasOneStamp(MarksOf("555")));
  EXPECT_TRUE(HasOneStamp(MarksOf("5?5")));
  EXPECT_FALSE(HasOneStamp(MarksOf("")));
  EXPECT_FALSE(HasOneStamp(MarksOf("556")));
  EXPECT_FALSE(HasOneStamp(MarksOf("545")));
}

TEST(LogMarks, NewestEntryEndsAtTheStrongestBoundary) {
  struct Row {
    const char* entries;
    int crossing;  // index of the entry that crossed the limit; -1: there is no such entry
    Boundary newest;
  };
  const Row rows[] = {
      {"7+2", -1, Before(1)},                              // a drop with lines before it
      {"72+1", -1, Before(2)},                             // it is stronger than an earlier drop
      {"721", -1, Before(1)},                              // the first drop
      {"678", -1, Before(3)},                              // stamps that rise: at the end
      {"678", 1, Before(3)},                               // also if an entry crossed the limit
      {"", -1, {kWrapEnd, 200}}, {"55+5", -1, Before(2)},  // one stamp: at the lines without a header
      {"55+55", 3, Before(2)},                             // which are before the crossing
      {"55+55", 1, Before(1)},                             // the crossing is first
      {"5555", 2, Before(2)},                              // no such lines
      {"5555", -1, Before(4)},                             // neither
      {"55+55", 2, Before(2)},                             // both at one boundary
  };
  for (const Row& row : rows) {
    LogMarks marks = MarksOf(row.entries);
    if (row.crossing >= 0) marks.crossing = Before(row.crossing);
    EXPECT_EQ(EndOfNewest(marks), row.newest) << row.entries << " " << row.crossing;
  }
}

std::string Line(const char* stamp, const std::string& text) {
  return "2026-01-31 10:20:30." + std::string(stamp) + " [0A1B2C3D] App           " + text + "\n";
}

TEST(LogMarks, LineAboveTheLimitIsTheCrossingOfItsEntry) {
  const std::string newest = Line("006", "new");
  const std::string crossing = Line("003", "crosses");
  const std::string bytes = newest + crossing + "a further line\n" + Line("001", "left of the previous cycle");
  const debug::TraceMemory source(bytes);
  debug::TraceLineReader reader(source, 0, source.Size());
  const std::uint64_t limit = newest.size() + crossing.size();  // ends above it: the further line
  const LogMarks marks = debug::CollectLogMarks(reader, {.line_end = 1, .max_bytes = limit}, std::nullopt);
  EXPECT_EQ(marks.crossing, (Boundary{newest.size(), newest.size()}));
  EXPECT_EQ(marks.crossing_end, limit + 15);
  EXPECT_EQ(marks.entries, 3U);
  EXPECT_EQ(marks.end, bytes.size());
}

TEST(LogMarks, LinesWithoutAHeaderAtTheEndAreABoundary) {
  const std::string bytes = Line("006", "new") + "lines\n";
  const debug::TraceMemory source(bytes);
  debug::TraceLineReader reader(source, 0, source.Size());
  const LogMarks marks = debug::CollectLogMarks(reader, {.line_end = 1, .max_bytes = 1000}, std::nullopt);
  EXPECT_EQ(marks.lines, (Boundary{bytes.size() - 6, bytes.size()}));
  EXPECT_EQ(marks.crossing_end, 0U);
}

// The marks of entries that begin at 1, 2, ... S: a start, N: new, B: both, -: neither.
KeptMarks KeptOf(const std::string& entries) {
  KeptMarks marks;
  bool follows_start = false;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const bool is_start = entries[i] == 'S' || entries[i] == 'B';
    NoteKept(marks, {.begin = i + 1, .is_start = is_start, .is_new = entries[i] == 'N' || entries[i] == 'B'},
             follows_start);
    follows_start = is_start;
  }
  return marks;
}

TEST(KeptMarks, CycleBeginsAtAStartThatIsNewOrIsFollowedByANewEntry) {
  struct Row {
    const char* entries;
    std::uint64_t cycle;  // the result of CycleBegin, counted from 1; 0: it found no entry
  };
  const Row rows[] = {{"--BN", 3}, {"SNN", 1}, {"S-NBN", 4}, {"S-NN", 3}, {"S--S-", 4},
                      {"B", 1},    {"S", 1},   {"--", 0},    {"", 0},     {"BNB", 1}};
  for (const Row& row : rows) EXPECT_EQ(CycleBegin(KeptOf(row.entries)), row.cycle) << row.entries;
}

TEST(KeptMarks, FirstEntryIsAlwaysKept) {
  EXPECT_EQ(KeptOf("-SN").first, 1U);
  EXPECT_EQ(KeptOf("").first, 0U);
}

// Between the old and the new end of a header block there is text that is not an entry any more.
TEST(KeptMarks, TerminatorInTheGapStartsAgain) {
  const std::string bytes = "block\n" + Line("001", "of the longer block") + "## TRACE-END ##\n" +
                            Line("002", "first") + Line("003", "### End of initialization. ###") +
                            Line("009", "newest");
  const debug::TraceMemory source(bytes);
  debug::TraceLineReader reader(source, 0, source.Size());
  const KeptMarks marks =
      debug::CollectKeptMarks(reader, {.end = 1, .stamp_ms = debug::ParseTraceStamp("2026-01-31 10:20:30.005")});
  EXPECT_EQ(marks.first, bytes.find("2026-01-31 10:20:30.002"));
  EXPECT_EQ(CycleBegin(marks), bytes.find("2026-01-31 10:20:30.009"));
}

TEST(HeaderBlock, EndsAtTheTerminatorAfterItsLastEntry) {
  const std::string begin = Line("001", "App Command Line Options:") + "## TRACE-END ##\n";
  const std::string bytes = begin + Line("002", "# End of header.") + "## TRACE-END ##\n" + Line("003", "kept");
  const debug::TraceMemory source(bytes);
  debug::TraceLineReader reader(source, 0, source.Size());
  const debug::HeaderBlock block = debug::ReadHeaderBlock(reader);
  EXPECT_EQ(block.end, bytes.rfind("## TRACE-END ##"));
  EXPECT_EQ(block.first_terminator, begin.size() - 16);
  EXPECT_EQ(block.stamp_ms, debug::ParseTraceStamp("2026-01-31 10:20:30.001"));
}

TEST(HeaderBlock, WithoutItsLastEntryItHasNoEnd) {
  const std::string bytes = Line("001", "App Command Line Options:") + "## TRACE-END ##\n";
  const debug::TraceMemory source(bytes);
  debug::TraceLineReader reader(source, 0, source.Size());
  EXPECT_EQ(debug::ReadHeaderBlock(reader).end, 0U);
}

}  // namespace

}  // namespace qx::test
