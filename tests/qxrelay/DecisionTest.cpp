// Tests Decide, with tables of messages and decisions, and the bases, as text and as positions.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "reportfile/tools/RecordOverlap.h"
#include "tools/qxrelay/receive/Decision.h"
#include "tools/qxrelay/receive/ReportBase.h"

namespace {

using namespace qx::relay;

constexpr std::uint64_t kIncarnation = 7;

std::string DecisionRecord(std::uint64_t number) { return std::to_string(number) + "\r\n"; }
std::uint64_t HashOfNumber(std::uint64_t number) { return qx::report::RecordHash(DecisionRecord(number)); }

ReportPosition At(std::uint64_t next) {
  return {.is_known = true, .incarnation = kIncarnation, .next = next, .sequence = 50};
}

struct DecisionCase {
  const char* name;
  ReportPosition position;
  MessageKind kind;
  std::uint64_t incarnation;
  std::uint64_t first;
  std::uint64_t count;
  std::uint64_t sequence;
  bool is_next;
  Decision expected;
};

constexpr Decision kMustWait = {.verdict = Verdict::kWait};

TEST(RelayDecision, Table) {
  using enum MessageKind;
  const ReportPosition unknown;
  const DecisionCase cases[] = {
      {"a new report from its first record on",
       unknown,
       kRecords,
       7,
       0,
       3,
       60,
       false,
       {.verdict = Verdict::kTake, .begins = true, .next = 0}},
      {"a report of which older records may still come", unknown, kRecords, 7, 5, 3, 60, false, kMustWait},
      {"a report of which nothing older will come",
       unknown,
       kRecords,
       7,
       5,
       3,
       60,
       true,
       {.verdict = Verdict::kTake, .begins = true, .next = 5}},
      {"a report that begins with a gap",
       unknown,
       kGap,
       7,
       0,
       3,
       60,
       false,
       {.verdict = Verdict::kTake, .begins = true, .next = 3, .gap = 3}},
      {"a report without records",
       unknown,
       kEmpty,
       7,
       0,
       0,
       60,
       false,
       {.verdict = Verdict::kTake, .begins = true, .next = 0}},
      {"the next records", At(10), kRecords, 7, 10, 3, 60, false, {.verdict = Verdict::kTake, .next = 10}},
      {"records of which two are there",
       At(10),
       kRecords,
       7,
       8,
       3,
       60,
       false,
       {.verdict = Verdict::kTake, .next = 10, .repeats = 2, .skip = 2}},
      {"records that are all there",
       At(10),
       kRecords,
       7,
       5,
       3,
       60,
       false,
       {.verdict = Verdict::kTake, .next = 10, .repeats = 3, .skip = 3}},
      {"an earlier message is missing", At(10), kRecords, 7, 12, 3, 60, false, kMustWait},
      {"an earlier message is gone",
       At(10),
       kRecords,
       7,
       12,
       3,
       60,
       true,
       {.verdict = Verdict::kTake, .next = 12, .missing = 2}},
      {"a gap", At(10), kGap, 7, 10, 4, 60, false, {.verdict = Verdict::kTake, .next = 14, .gap = 4}},
      {"a gap of which a part is known",
       At(10),
       kGap,
       7,
       8,
       4,
       60,
       false,
       {.verdict = Verdict::kTake, .next = 12, .gap = 2}},
      {"a gap that is known", At(10), kGap, 7, 4, 4, 60, false, {.verdict = Verdict::kTake, .next = 10}},
      {"a gap after a hole", At(10), kGap, 7, 12, 4, 60, false, kMustWait},
      {"a gap after records that are gone",
       At(10),
       kGap,
       7,
       12,
       4,
       60,
       true,
       {.verdict = Verdict::kTake, .next = 16, .missing = 2, .gap = 4}},
      {"an empty message", At(10), kEmpty, 7, 10, 0, 60, false, {.verdict = Verdict::kTake, .next = 10}},
      {"an empty message after a hole", At(10), kEmpty, 7, 12, 0, 60, false, kMustWait},
      {"an empty message after records that are gone",
       At(10),
       kEmpty,
       7,
       12,
       0,
       60,
       true,
       {.verdict = Verdict::kTake, .next = 12, .missing = 2}},
      {"a new incarnation",
       At(10),
       kRecords,
       8,
       4,
       3,
       60,
       true,
       {.verdict = Verdict::kTake, .begins = true, .next = 4}},
      {"a new incarnation before the old one has ended", At(10), kRecords, 8, 0, 3, 60, false, kMustWait},
      {"an incarnation before this one",
       At(10),
       kRecords,
       6,
       4,
       3,
       40,
       false,
       {.verdict = Verdict::kTake, .next = 10, .repeats = 3, .skip = 3}},
      {"a gap of an incarnation before this one",
       At(10),
       kGap,
       6,
       4,
       3,
       40,
       false,
       {.verdict = Verdict::kTake, .next = 10}},
  };
  for (const DecisionCase& one : cases) {
    SCOPED_TRACE(one.name);
    std::vector<std::string> records;
    for (std::uint64_t i = 0; one.kind == kRecords && i < one.count; ++i)
      records.push_back(DecisionRecord(one.first + i));
    const std::vector<std::string_view> texts(records.begin(), records.end());
    const MessageHead head = {.kind = one.kind,
                              .incarnation = one.incarnation,
                              .first = one.first,
                              .count = one.count,
                              .hash_before = one.first > 0 ? HashOfNumber(one.first - 1) : 0,
                              .report = {}};
    const Decision decision = Decide(
        one.position, {.head = head, .texts = texts, .sequence = one.sequence, .is_next = one.is_next}, HashOfNumber);
    EXPECT_EQ(decision, one.expected);
    EXPECT_EQ(decision.NeedsBase(), decision.begins || decision.missing + decision.gap > 0);
  }
}

// Each record that both the message and the report have is compared: another program may have written to the report, or
// the disk may have lost a sector.
TEST(RelayDecision, AReportWithAnotherRecordContradictsTheMessage) {
  const auto strange = [](std::uint64_t number) { return HashOfNumber(number) + 1; };
  const auto only_at_nine = [](std::uint64_t number) { return number == 9 ? HashOfNumber(9) + 1 : 0; };
  const auto only_at_eight = [](std::uint64_t number) { return HashOfNumber(number) + (number == 8 ? 1 : 0); };
  const auto unknown = [](std::uint64_t) { return std::uint64_t{0}; };
  const std::string records[] = {DecisionRecord(8), DecisionRecord(9), DecisionRecord(10)};
  const std::vector<std::string_view> texts(std::begin(records), std::end(records));
  MessageHead head = {.kind = MessageKind::kRecords,
                      .incarnation = 7,
                      .first = 8,
                      .count = 3,
                      .hash_before = HashOfNumber(7),
                      .report = {}};
  const IncomingMessage message = {.head = head, .texts = texts, .sequence = 60, .is_next = true};
  EXPECT_EQ(Decide(At(10), message, strange).verdict, Verdict::kContradicted);
  EXPECT_EQ(Decide(At(10), message, only_at_nine).verdict, Verdict::kContradicted);
  EXPECT_EQ(Decide(At(10), message, only_at_eight).verdict, Verdict::kContradicted);
  EXPECT_EQ(Decide(At(10), message, unknown).verdict, Verdict::kTake);
  EXPECT_EQ(Decide(At(8), message, strange).verdict, Verdict::kContradicted);
  EXPECT_EQ(Decide(At(20), message, strange).verdict, Verdict::kContradicted) << "a repeat";
  head.hash_before = 0;
  EXPECT_EQ(Decide(At(8), message, strange).verdict, Verdict::kTake) << "the sender does not know";
  head.kind = MessageKind::kEmpty;
  head.first = 10;
  head.count = 0;
  head.hash_before = HashOfNumber(9);
  EXPECT_EQ(Decide(At(10), {.head = head, .texts = {}, .sequence = 60}, strange).verdict, Verdict::kContradicted);
}

ReportBase SomeBase(std::uint64_t generation, std::uint32_t count, std::uint64_t next) {
  return {.generation = generation,
          .incarnation = 0xFEDCBA9876543210,
          .count = count,
          .next = next,
          .sequence = 5,
          .stream = 6,
          .lost = 9};
}

TEST(RelayReportBase, ALineIsRead) {
  const ReportBase base = SomeBase(3, 0xFFFFFFFF, ~std::uint64_t{0});
  const std::string text = TextOfBase(base);
  EXPECT_EQ(text.size(), kBaseLineBytes);
  EXPECT_EQ(text,
            "qxrelay-base 1 0000000000000003 fedcba9876543210 00000000ffffffff ffffffffffffffff 0000000000000005 "
            "0000000000000006 0000000000000009 " +
                text.substr(134, 16) + "         \n");
  const BaseLines lines = BasesOfText(text + TextOfBase(SomeBase(4, 1, 2)));
  EXPECT_EQ(lines[0], base);
  EXPECT_EQ(lines[1], SomeBase(4, 1, 2));
}

TEST(RelayReportBase, NoPrefixAndNoFlippedBitIsALine) {
  const std::string text = TextOfBase(SomeBase(3, 4, 5));
  for (std::size_t size = 0; size < text.size(); ++size) {
    EXPECT_EQ(BasesOfText(text.substr(0, size)), BaseLines()) << size;
  }
  for (std::size_t bit = 0; bit < 150 * 8; ++bit) {  // what is after the check is not part of the line
    std::string flipped = text;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << (bit % 8)));
    EXPECT_EQ(BasesOfText(flipped)[0], std::nullopt) << bit;
  }
}

struct FindCase {
  const char* name;
  std::optional<ReportBase> first;
  std::optional<ReportBase> second;
  std::uint32_t count;
  BaseFit fit;
  std::uint64_t generation;
  std::uint64_t next;
};

TEST(RelayReportBase, FindTable) {
  const ReportBase older = SomeBase(1, 20, 20);
  const ReportBase newer = SomeBase(2, 40, 100);
  ReportBase contradiction = SomeBase(3, 40, 100);
  contradiction.incarnation = 0;
  const FindCase cases[] = {
      {"no base", {}, {}, 5, BaseFit::kNone, 0, 0},
      {"the newer one", older, newer, 45, BaseFit::kFits, 2, 105},
      {"the newer one is first", newer, older, 45, BaseFit::kFits, 2, 105},
      {"directly after the newer one", older, newer, 40, BaseFit::kFits, 2, 100},
      {"the newer one was early", older, newer, 30, BaseFit::kFits, 1, 30},
      {"shorter than any", older, newer, 5, BaseFit::kShrunk, 2, 100},
      {"the only one is shorter", newer, {}, 30, BaseFit::kShrunk, 2, 100},
      {"the count has wrapped", SomeBase(1, 0xFFFFFFF0, 1000), {}, 0x10, BaseFit::kFits, 1, 1032},
      {"contradicted", newer, contradiction, 40, BaseFit::kContradicted, 3, 0},
      {"contradicted, and changed since", newer, contradiction, 41, BaseFit::kNone, 3, 0},
      {"contradicted, and emptied since", newer, contradiction, 0, BaseFit::kNone, 3, 0},
      {"after a contradiction", SomeBase(4, 0, 7), contradiction, 2, BaseFit::kFits, 4, 9},
  };
  for (const FindCase& one : cases) {
    SCOPED_TRACE(one.name);
    const FoundBase found = FindBase({one.first, one.second}, one.count);
    EXPECT_EQ(found.fit, one.fit);
    EXPECT_EQ(found.base.generation, one.generation);
    EXPECT_EQ(found.next, one.next);
  }
}

TEST(RelayReportBase, TheNextBaseKeepsTheOneInForce) {
  const ReportBase first = SomeBase(1, 1, 1);
  const ReportBase second = SomeBase(2, 2, 2);
  EXPECT_EQ(PlaceOfNextBase({}, std::nullopt), 0U);
  EXPECT_EQ(PlaceOfNextBase({first, {}}, first), 1U);
  EXPECT_EQ(PlaceOfNextBase({first, second}, second), 0U);
  EXPECT_EQ(PlaceOfNextBase({first, second}, first), 1U) << "the later line was not reached";
}

}  // namespace
