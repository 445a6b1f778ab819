// Tests that a log that CDebug has written through many wraps is read in the order of time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "debug/tools/TraceUnroll.h"
#include "tests/debug/TraceClock.h"
#include "tests/debug/TraceFixture.h"
#include "tests/debug/TraceReading.h"

namespace qx::test {

namespace {

using debug::TraceEntry;
using debug::TraceFinding;
using debug::TracePart;
using testing::ElementsAre;
using testing::IsEmpty;

// "2026-01-31 10:20:30.00N [0A1B2C3D] App           TEXT\n"
std::string Line(int ms, const std::string& text) {
  char header[64];
  std::snprintf(header, sizeof header, "2026-01-31 10:20:30.%03d [0A1B2C3D] App           ", ms);
  return header + text + "\n";
}

// A log that has wrapped: the wrap line, `newest`, `older`, and `last`, the entry that crossed the limit. The wrap line
// has the time stamp of `last`.
std::string Wrapped(const std::string& head, int wrap_ms, const std::string& newest, const std::string& older,
                    const std::string& last) {
  const std::string size = std::to_string(head.size());
  const auto wrap = [&](const std::string& max) {
    return Line(wrap_ms,
                "------ WRAP ----- Cycle=1, CntInitEnd=" + size + ", CurrentByteCnt=" + size + " (MaxCnt=" + max + ")");
  };
  const std::string before_last = head + wrap("999") + newest + older;
  return head + wrap(std::to_string(before_last.size() + 1)) + newest + older + last;
}

// A writer that uses the facility, and records what it has written and which entries a reader must return.
class LogModel {
 public:
  explicit LogModel(std::uint64_t seed) : random_(seed) {}

  bool Start(unsigned max_bytes) {
    setup_.SetEnv("QX_LOG_FILE_MAX_SIZE", std::to_string(max_bytes).c_str());
    return setup_.InitAtLevel(1);
  }
  void EndInit() {
    setup_.Trace().SetApplInitDone();
    head_ = texts_.size();
  }
  void Trace(int step_ms_max, int lines_max) {
    clock_.Advance(Random(0, step_ms_max));
    const std::string text = RandomText(lines_max);
    setup_.Trace().Print(1, "\n%s", text.c_str());
    texts_.push_back(text.ends_with('\n') ? text : text + "\n");
  }

  std::string Bytes() const { return setup_.Log(); }
  const std::vector<std::string>& Texts() const { return texts_; }
  std::size_t HeadCount() const { return head_; }
  int Random(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }

 private:
  std::string Repeated(char c, int times_max) { return std::string(static_cast<std::size_t>(Random(0, times_max)), c); }
  std::string RandomText(int lines_max) {
    std::string text = "entry " + std::to_string(texts_.size()) + " " + Repeated('x', 90);
    for (int lines = Random(1, lines_max); lines > 1; --lines) text += "\n" + Repeated('y', 40);
    return text;
  }

  TraceClock clock_;
  TraceSetup setup_;
  std::mt19937_64 random_;
  std::vector<std::string> texts_;
  std::size_t head_ = 0;
};

// The number at the start of an entry's text: "entry 12 xxx" => 12.
std::size_t NumberOf(const TraceEntry& entry) { return std::stoul(entry.lines.at(0).substr(6)); }

// The number of whole entries in the bytes: their headers begin a line.
std::size_t EntriesIn(const std::string& bytes) {
  const std::string_view after_stamp = "] QxTrace       entry ";
  std::size_t count = 0;
  for (std::size_t at = 0; (at = bytes.find(after_stamp, at)) != std::string::npos; ++at) {
    const std::size_t begin = bytes.rfind('\n', at) + 1;
    if (at - begin == 33) ++count;
  }
  return count;
}

// The entries must be the written ones in their order: first the head, and then, without a gap, the entries up to the
// newest one. Further lines of the newest entry, and of the one that crossed the limit, may be in the piece after these
// entries.
void ExpectHeadAndNewest(const ReadBack& read, const LogModel& model) {
  std::vector<std::size_t> numbers;
  for (std::size_t i = 0; i < read.entries.size(); ++i) {
    const TraceEntry& entry = read.entries[i];
    if (entry.kind != TraceEntry::Kind::kEntry) continue;
    const std::size_t number = NumberOf(entry);
    const bool has_piece = i + 1 < read.entries.size() && read.entries[i + 1].kind == TraceEntry::Kind::kPiece;
    const std::string text = TextOf(entry) + (has_piece ? TextOf(read.entries[i + 1]) : "");
    ASSERT_LT(number, model.Texts().size());
    if (has_piece) {
      EXPECT_EQ(text.substr(0, model.Texts()[number].size()), model.Texts()[number]);
    } else {
      EXPECT_EQ(text, model.Texts()[number]);
    }
    numbers.push_back(number);
  }
  const std::size_t total = model.Texts().size();
  std::size_t next = numbers.size() > model.HeadCount() ? total - (numbers.size() - model.HeadCount()) : total;
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    EXPECT_EQ(numbers[i], i < model.HeadCount() ? i : next++) << i << " of " << numbers.size();
  }
}

std::size_t EntriesRead(const ReadBack& read) {
  return static_cast<std::size_t>(std::count_if(read.entries.begin(), read.entries.end(), [](const TraceEntry& entry) {
    return entry.kind == TraceEntry::Kind::kEntry;
  }));
}

class TraceUnrollOracle : public testing::TestWithParam<int> {};

}  // namespace

TEST(TraceUnroll, LogThatHasNotWrappedIsReadAsItIs) {
  const ReadBack read = Unroll(Line(1, "one") + Line(2, "two") + "more of two\n" + Line(2, "three"));
  ASSERT_EQ(read.entries.size(), 3U);
  EXPECT_EQ(read.entries[0].stamp, "2026-01-31 10:20:30.001");
  EXPECT_EQ(read.entries[0].stamp_ms, 1769854830001);
  EXPECT_EQ(read.entries[0].thread, 0x0A1B2C3DU);
  EXPECT_EQ(read.entries[0].module, "App");
  EXPECT_EQ(read.entries[0].resident_kb, std::nullopt);
  EXPECT_THAT(read.entries[1].lines, ElementsAre("two", "more of two"));
  EXPECT_EQ(read.entries[2].part, TracePart::kNewest);
  EXPECT_THAT(read.findings, IsEmpty());
}

TEST(TraceUnroll, WrappedLogIsReadAsHeadGapOlderWrapNewest) {
  const ReadBack read = Unroll(Wrapped(Line(1, "head"), 5, Line(7, "newest") + "the end of a cut one\n",
                                       Line(4, "older"), Line(5, "crossing the limit")));
  EXPECT_EQ(Shown(read),
            "head: head\ngap\nolder: older\nolder: crossing the limit\nwrap\nnewest: newest\n"
            "piece: the end of a cut one\n");
  EXPECT_THAT(read.findings, IsEmpty());
}

TEST(TraceUnroll, ContinuationLinesStayWithTheirEntryInEveryPart) {
  const ReadBack read = Unroll(Wrapped(Line(1, "head") + "h2\n", 5, Line(6, "new") + "n2\n" + Line(7, "newest"),
                                       Line(3, "old") + "o2\n", Line(5, "last")));
  EXPECT_EQ(Shown(read), "head: head|h2\ngap\nolder: old|o2\nolder: last\nwrap\nnewest: new|n2\nnewest: newest\n");
}

// An entry of an earlier cycle may have ended after the end of the last cycle.
TEST(TraceUnroll, LinesAfterTheEntryThatCrossedTheLimitAreAPiece) {
  const ReadBack read =
      Unroll(Wrapped(Line(1, "head"), 5, Line(7, "newest"), Line(4, "old"), Line(5, "last") + "of a cycle before\n"));
  EXPECT_EQ(Shown(read), "head: head\ngap\nolder: old\nolder: last\npiece: of a cycle before\nwrap\nnewest: newest\n");
}

TEST(TraceUnroll, TextThatLooksLikeAWrapElsewhereIsAnEntry) {
  const std::string fake = "------ WRAP ----- Cycle=9, CntInitEnd=7, CurrentByteCnt=7 (MaxCnt=300)";
  const ReadBack read = Unroll(Line(1, "one") + Line(2, fake) + Line(3, "three"));
  EXPECT_EQ(Shown(read), "newest: one\nnewest: " + fake + "\nnewest: three\n");
}

TEST(TraceUnroll, TerminatorInALogIsText) {
  EXPECT_EQ(Shown(Unroll(Line(1, "one") + "## TRACE-END ##\n")), "newest: one|## TRACE-END ##\n");
}

TEST(TraceUnroll, LineThatLooksLikeAHeaderBeginsAnEntry) {
  EXPECT_EQ(Shown(Unroll(Line(1, "one\n" + Line(2, "quoted")))), "newest: one\nnewest: quoted|\n");
}

TEST(TraceUnroll, EntryAtACutEndOfTheFileIsCutAndAFinding) {
  const ReadBack read = Unroll(Line(1, "one") + Line(2, "two").substr(0, 51));
  ASSERT_EQ(read.entries.size(), 2U);
  EXPECT_FALSE(read.entries[0].is_cut);
  EXPECT_TRUE(read.entries[1].is_cut);
  EXPECT_THAT(Kinds(read), ElementsAre(TraceFinding::Kind::kCutEnd));
}

TEST(TraceUnroll, FileWithoutAnyEntryIsAFinding) {
  EXPECT_THAT(Kinds(Unroll("hello\n")), ElementsAre(TraceFinding::Kind::kNoEntries));
  EXPECT_THAT(Unroll("").findings, IsEmpty());
}

TEST(TraceUnroll, HoleOfNulBytesIsSkippedAndAFinding) {
  const ReadBack read = Unroll(std::string(200000, '\0') + Line(1, "one"));
  EXPECT_EQ(Shown(read), "newest: one\n");
  EXPECT_THAT(Kinds(read), ElementsAre(TraceFinding::Kind::kHole));
}

TEST(TraceUnroll, UnknownStampIsAnEntryWithoutATime) {
  const ReadBack read = Unroll("yyyy-mm-dd hh:mm:ss.mmm [0A1B2C3D] App           text\n");
  ASSERT_EQ(read.entries.size(), 1U);
  EXPECT_EQ(read.entries[0].stamp_ms, std::nullopt);
  EXPECT_THAT(read.entries[0].lines, ElementsAre("text"));
}

TEST(TraceUnroll, EntryOfManyMiBIsReadInParts) {
  std::string big = Line(1, "big");
  for (int i = 0; i < 60000; ++i) big += std::string(60, 'z') + "\n";
  const ReadBack read = Unroll(big + std::string(3 << 20, 'w') + "\n" + Line(2, "next"));
  std::size_t bytes = 0;
  for (const TraceEntry& entry : read.entries) bytes += TextOf(entry).size();
  EXPECT_EQ(read.entries.front().kind, TraceEntry::Kind::kEntry);
  EXPECT_EQ(read.entries[1].kind, TraceEntry::Kind::kRest);
  EXPECT_EQ(TextOf(read.entries.back()), "next\n");
  EXPECT_GE(bytes, std::size_t{60000} * 61 + (3 << 20));
  EXPECT_THAT(read.findings, IsEmpty());
}

TEST(TraceUnroll, HeaderWithMemoryTracesHasTheResidentSize) {
  const ReadBack read = Unroll("2026-01-31 10:20:30.123 [0A1B2C3D]    51234 KB !QxTrace       text\n");
  ASSERT_EQ(read.entries.size(), 1U);
  EXPECT_EQ(read.entries[0].resident_kb, 51234U);
  EXPECT_EQ(read.entries[0].module, "QxTrace");
  EXPECT_THAT(read.entries[0].lines, ElementsAre("text"));
}

TEST(TraceUnroll, LongerModuleNameMovesTheText) {
  const ReadBack read = Unroll("2026-01-31 10:20:30.123 [0A1B2C3D] QXRemConXferLong the text\n");
  ASSERT_EQ(read.entries.size(), 1U);
  EXPECT_EQ(read.entries[0].module, "QXRemConXferLong");
  EXPECT_THAT(read.entries[0].lines, ElementsAre("the text"));
}

TEST(TraceUnroll, ImpossibleDatesBeginNoEntry) {
  EXPECT_EQ(debug::ParseTraceStamp("2026-02-30 10:20:30.123"), std::nullopt);
  EXPECT_EQ(debug::ParseTraceStamp("2026-01-31 24:20:30.123"), std::nullopt);
  EXPECT_EQ(debug::ParseTraceStamp("1970-01-01 00:00:00.001"), 1);
  EXPECT_FALSE(debug::ParseTraceHeader("2026-13-31 10:20:30.123 [0A1B2C3D] App           x").has_value());
}

TEST(TraceUnroll, CycleWithinOneMillisecondIsAFinding) {
  LogModel model(1);
  ASSERT_TRUE(model.Start(600));
  model.Trace(0, 1);
  model.EndInit();
  for (int i = 0; i < 25; ++i) model.Trace(0, 1);
  const std::string bytes = model.Bytes();
  const ReadBack read = Unroll(bytes);
  EXPECT_THAT(Kinds(read), ElementsAre(TraceFinding::Kind::kStampsAlike));
  ExpectHeadAndNewest(read, model);  // the piece still shows the boundary
}

TEST(TraceUnroll, ClockThatWasSetBackIsAFinding) {
  const ReadBack read = Unroll(Wrapped(Line(1, "head"), 50, Line(60, "a") + Line(10, "b") + Line(11, "c") + "cut\n",
                                       Line(8, "d"), Line(50, "e")));
  EXPECT_THAT(Kinds(read), ElementsAre(TraceFinding::Kind::kClockSetBack));
  EXPECT_EQ(Shown(read), "head: head\ngap\nolder: d\nolder: e\nwrap\nnewest: a\nnewest: b\nnewest: c\npiece: cut\n");
}

TEST(TraceUnroll, WriterThatContinuesIsNoticed) {
  LogModel model(2);
  ASSERT_TRUE(model.Start(600));
  model.EndInit();
  for (int i = 0; i < 20; ++i) model.Trace(2, 1);
  const std::string before = model.Bytes();
  WriteThenRead changed(before);
  EXPECT_FALSE(changed.Unroller().HasChanged());
  model.Trace(2, 1);
  changed.Replace(model.Bytes());
  EXPECT_TRUE(changed.Unroller().HasChanged());
}

TEST_P(TraceUnrollOracle, HeadAndNewestEntriesHaveNoGapAfterEveryEntry) {
  const int lines_max = GetParam();
  const std::uint64_t seed = Seed("TraceUnrollOracle");
  for (std::uint64_t round = 0; round < 8; ++round) {
    LogModel model(seed + round);
    ASSERT_TRUE(model.Start(static_cast<unsigned>(model.Random(0, 2500))));
    for (int i = model.Random(0, 8); i > 0; --i) model.Trace(3, lines_max);
    const bool wrapped_before = model.Bytes().find("WRAP") != std::string::npos;
    if (wrapped_before) continue;  // only a part of a start that is longer than the log is kept
    model.EndInit();
    for (int i = 0; i < 120; ++i) {
      model.Trace(3, lines_max);
      const ReadBack read = Unroll(model.Bytes());
      if (!Has(read, TraceFinding::Kind::kStampsAlike)) ExpectHeadAndNewest(read, model);
      EXPECT_EQ(EntriesRead(read), EntriesIn(model.Bytes()));
      ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed + round << ", entry " << i << "\n" << model.Bytes();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Lines, TraceUnrollOracle, testing::Values(1, 4));

TEST(TraceUnroll, EveryPrefixAndEveryChangedByteIsReadToItsEnd) {
  LogModel model(3);
  ASSERT_TRUE(model.Start(500));
  model.Trace(2, 2);
  model.EndInit();
  for (int i = 0; i < 12; ++i) model.Trace(2, 2);
  std::string bytes = model.Bytes();
  for (std::size_t size = 0; size <= bytes.size(); ++size) (void)Unroll(bytes.substr(0, size));
  for (char& byte : bytes) {
    const char kept = byte;
    for (const char other : {'\0', '\n', ' ', '9'}) {
      byte = other;
      (void)Unroll(bytes);
    }
    byte = kept;
  }
}

}  // namespace qx::test
