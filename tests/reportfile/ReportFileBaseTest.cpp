// Tests writing and reading: rings, restarts of the data file, odd record texts, printing.
#include "reportfile/ReportFileBase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "tests/reportfile/StoreFiles.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using report::IndexHeader;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::string_literals;

class ReportFileBase : public testing::Test {
 protected:
  void Create(std::uint32_t slots) { ASSERT_TRUE(store_.Open(files_.Path(), slots)); }

  void Append(std::initializer_list<const char*> texts) {
    for (const char* text : texts) ASSERT_TRUE(store_.writeLine(text));
  }

  std::string Slot(std::uint32_t slot) {
    std::string text = "unchanged";
    EXPECT_TRUE(store_.readLine(text, slot));
    return text;
  }

  // Reads slot 0, which has `offset`, of a store whose data file is `data`.
  std::string RecordIn(std::string_view data, std::uint32_t offset = 0) {
    files_.Make(StoreFiles::FullRing(1), {offset}, data);
    EXPECT_TRUE(store_.OpenRead(files_.Path()));
    return Slot(0);
  }

  StoreFiles files_;
  CReportFileBase store_;
};

TEST_F(ReportFileBase, NewObjectHasTenThousandSlotsAndNothingElse) {
  EXPECT_EQ(store_.header(), (IndexHeader{0, 0, 0, 10000, 0, 0}));
  EXPECT_EQ(store_.GetDataFileSize(), 0);
}

TEST_F(ReportFileBase, FourthRecordOfAThreeSlotRingReplacesTheOldest) {
  Create(3);
  Append({"a", "b", "c"});
  EXPECT_THAT(files_.Slots(), ElementsAre(0, 3, 6));
  Append({"d"});
  EXPECT_THAT(files_.Slots(), ElementsAre(9, 3, 6));
  EXPECT_EQ(store_.header().highestIndex, 3U);
  EXPECT_EQ(store_.header().oldestIndex, 1U);
  EXPECT_THAT(ReadAll(store_), ElementsAre("b\r\n", "c\r\n", "d\r\n"));
}

TEST_F(ReportFileBase, FirstRecordIsFollowedByTheEndMarker) {
  Create(3);
  Append({"hello"});
  EXPECT_EQ(files_.DataBytes(), "hello\r\n===>\r\n");
  EXPECT_EQ(files_.Header(), (IndexHeader{7, 7, 1, 3, 1, 0}));
  EXPECT_EQ(files_.IndexBytes().size(), 28U);
}

TEST_F(ReportFileBase, NextRecordOverwritesTheEndMarker) {
  Create(3);
  Append({"one", "two"});
  EXPECT_EQ(files_.DataBytes(), "one\r\ntwo\r\n===>\r\n");
}

TEST_F(ReportFileBase, SixthRecordOfAThreeSlotRingRestartsTheDataFile) {
  Create(3);
  Append({"a", "b", "c", "d", "e"});
  EXPECT_EQ(store_.header(), (IndexHeader{15, 15, 5, 3, 3, 2}));
  Append({"f"});
  EXPECT_EQ(store_.header(), (IndexHeader{0, 18, 6, 3, 3, 0}));
  EXPECT_EQ(files_.DataBytes(), "a\r\nb\r\nc\r\nd\r\ne\r\nf\r\n===>\r\n");
}

TEST_F(ReportFileBase, SeventhRecordOfAThreeSlotRingStartsAtOffsetZero) {
  Create(3);
  Append({"a", "b", "c", "d", "e", "f", "g"});
  EXPECT_EQ(files_.DataBytes(), "g\r\n===>\r\nd\r\ne\r\nf\r\n===>\r\n");
  EXPECT_EQ(files_.Header(), (IndexHeader{3, 18, 7, 3, 3, 1}));
  EXPECT_THAT(files_.Slots(), ElementsAre(0, 12, 15));
  EXPECT_THAT(ReadAll(store_), ElementsAre("e\r\n", "f\r\n", "g\r\n"));
}

TEST_F(ReportFileBase, FileEndGrowsAgainWhenLongerRecordsPassIt) {
  Create(1);
  Append({"a", "b"});
  EXPECT_EQ(store_.header().fileEnd, 6U);
  Append({"longer than both"});
  EXPECT_EQ(store_.header().fileEnd, 18U);
}

TEST_F(ReportFileBase, QuirkLongerRecordsAfterARestartOverwriteIndexedOnes) {
  Create(2);
  Append({"a", "b", "c", "dddddddd"});
  Append({"EEEEEEEEEEEE"});
  // Logical 0 is the record "dddddddd" at offset 9; the new record and its marker reach to offset 20.
  EXPECT_THAT(ReadAll(store_), ElementsAre("EEE\r\n", "EEEEEEEEEEEE\r\n"));
  EXPECT_EQ(files_.DataBytes(), "EEEEEEEEEEEE\r\n===>\r\n==>\r\n");
}

TEST_F(ReportFileBase, NullTextIsAnEmptyRecord) {
  Create(3);
  Append({nullptr, ""});
  EXPECT_EQ(files_.DataBytes(), "\r\n\r\n===>\r\n");
  EXPECT_THAT(ReadAll(store_), ElementsAre("\r\n", "\r\n"));
}

TEST_F(ReportFileBase, RecordIsReadWithItsLineEnd) {
  Create(3);
  Append({"x"});
  EXPECT_EQ(Slot(0), "x\r\n");
}

TEST_F(ReportFileBase, RecordWithALineFeedIsReadUpToIt) {
  Create(3);
  Append({"one\ntwo", "next"});
  EXPECT_EQ(Slot(0), "one\n");
  EXPECT_EQ(Slot(1), "next\r\n");
}

TEST_F(ReportFileBase, ByteFFEndsTheReadAndIsPartOfTheText) {
  Create(3);
  Append({"one\xFFtwo", "next"});
  EXPECT_EQ(Slot(0), "one\xFF");
  EXPECT_EQ(Slot(1), "next\r\n");
}

TEST_F(ReportFileBase, RecordIsCutAtItsFirstNul) {
  EXPECT_EQ(RecordIn("one\0two\r\n"s), "one");
  EXPECT_EQ(RecordIn("\0two\r\n"s), "");
  EXPECT_EQ(RecordIn("one\0\xFF\n"s), "one");
  EXPECT_EQ(RecordIn("one\n\0"s), "one\n");
}

TEST_F(ReportFileBase, EndOfTheFileReadsAsTheByteFF) {
  EXPECT_EQ(RecordIn("no line end"), "no line end\xFF");
  EXPECT_EQ(RecordIn(""), "\xFF");
  EXPECT_EQ(RecordIn("abc\r\n", 5), "\xFF");
  EXPECT_EQ(RecordIn("abc\r\n", 0xFFFFFFFF), "\xFF");
}

TEST_F(ReportFileBase, QuirkRingOfOldRecordsCanReadTheEndMarker) { EXPECT_EQ(RecordIn("===>\r\n"), "===>\r\n"); }

TEST_F(ReportFileBase, RecordsOfEveryLengthAroundTheReadWindowAreReadWhole) {
  Create(100);
  std::vector<std::string> expected;
  for (const std::size_t size : {0U, 1U, 4093U, 4094U, 4095U, 4096U, 4097U, 8190U, 8191U, 8192U, 70000U, 400000U}) {
    const std::string text(size, static_cast<char>('a' + size % 26));
    ASSERT_TRUE(store_.writeLine(text.c_str()));
    expected.push_back(text + "\r\n");
  }
  EXPECT_EQ(ReadAll(store_), expected);
}

TEST_F(ReportFileBase, SlotsNotInUseCannotBeReadAndLeaveTheTextUnchanged) {
  Create(3);
  Append({"a", "b"});
  for (const std::uint32_t slot : {2U, 3U, 0x80000000U, 0xFFFFFFFFU}) {
    std::string text = "unchanged";
    EXPECT_FALSE(store_.readLine(text, slot));
    EXPECT_EQ(text, "unchanged");
  }
}

TEST_F(ReportFileBase, QuirkSlotsAreCheckedAgainstTheSlotsInUseNotTheRingSize) {
  files_.Make({.maxRecord = 1, .highestIndex = 3}, {0, 3, 6}, "a\r\nb\r\nc\r\n");
  ASSERT_TRUE(store_.OpenRead(files_.Path()));
  EXPECT_EQ(Slot(2), "c\r\n");
}

TEST_F(ReportFileBase, SlotWithFewerThanFourReadableBytesReadsAsOffsetZero) {
  files_.Make(StoreFiles::FullRing(3), {3}, "a\r\nb\r\n");
  WriteFile(files_.IndexPath(), files_.IndexBytes() + "\x03\x00\x00"s);
  ASSERT_TRUE(store_.OpenRead(files_.Path()));
  EXPECT_EQ(store_.getPositionFromIndexFile(0), 3U);
  EXPECT_EQ(store_.getPositionFromIndexFile(1), 0U);
  EXPECT_EQ(store_.getPositionFromIndexFile(2), 0U);
  EXPECT_EQ(store_.getPositionFromIndexFile(0xFFFFFFFF), 0U);
  EXPECT_EQ(Slot(0), "b\r\n");
  EXPECT_EQ(Slot(1), "a\r\n");
}

// 24 + 4 * 0x3FFFFFFF is 20 in 32 bits: the record's slot would land in the header.
TEST_F(ReportFileBase, SlotNumbersNearTheTopOfTheRangeDoNotReachTheHeader) {
  Create(3);
  Append({"a"});
  const std::string index = files_.IndexBytes();
  EXPECT_TRUE(store_.setPositionInIndexFile(0x3FFFFFFF, 77));
  EXPECT_EQ(store_.getPositionFromIndexFile(0x3FFFFFFF), 77U);
  CReportFileBase reader;
  ASSERT_TRUE(reader.OpenRead(files_.Path()));
  EXPECT_EQ(reader.header(), store_.header());
  EXPECT_EQ(reader.getPositionFromIndexFile(0), 0U);
}

TEST_F(ReportFileBase, SlotsAreWrittenAndReadBackAtOnce) {
  Create(3);
  EXPECT_TRUE(store_.setPositionInIndexFile(2, 0xDEADBEEF));
  EXPECT_EQ(store_.getPositionFromIndexFile(2), 0xDEADBEEF);
  EXPECT_EQ(files_.IndexBytes(), std::string(32, '\0') + "\xEF\xBE\xAD\xDE");
}

TEST_F(ReportFileBase, HeaderIsWrittenWholeAndReadBack) {
  Create(3);
  Append({"a"});
  CReportFileBase other;
  ASSERT_TRUE(other.Open(files_.Path(), 9));
  Append({"b", "c", "d"});
  EXPECT_EQ(other.header().elementCount, 1U);
  EXPECT_EQ(other.readPositions(), 0);
  EXPECT_EQ(other.header(), store_.header());
  EXPECT_EQ(other.writePositionsToFile(), 0);
  EXPECT_EQ(files_.Header(), store_.header());
}

TEST_F(ReportFileBase, HeaderThatIsTooShortLeavesTheFieldsUnchanged) {
  Create(3);
  Append({"a", "b"});
  const IndexHeader kept = store_.header();
  WriteFile(files_.IndexPath(), std::string(23, '\xAA'));
  EXPECT_EQ(store_.readPositions(), 0);
  EXPECT_EQ(store_.header(), kept);
  WriteFile(files_.IndexPath(), std::string(24, '\xAA'));
  EXPECT_EQ(store_.readPositions(), 0);
  EXPECT_EQ(store_.header().maxRecord, 0xAAAAAAAA);
}

TEST_F(ReportFileBase, OperationsOnAClosedStoreFail) {
  std::string text = "unchanged";
  EXPECT_FALSE(store_.writeLine("a"));
  EXPECT_FALSE(store_.readLine(text, 0));
  EXPECT_EQ(text, "unchanged");
  EXPECT_EQ(store_.readPositions(), -1);
  EXPECT_EQ(store_.writePositionsToFile(), -1);
  EXPECT_FALSE(store_.setPositionInIndexFile(0, 1));
  EXPECT_EQ(store_.getPositionFromIndexFile(0), 0U);
  EXPECT_EQ(store_.GetDataFileSize(), 0);
  EXPECT_EQ(store_.header(), IndexHeader());
}

TEST_F(ReportFileBase, ClosedStoreKeepsItsHeaderButReadsAndWritesFail) {
  Create(3);
  Append({"a", "b"});
  EXPECT_TRUE(store_.Close());
  EXPECT_EQ(store_.header(), (IndexHeader{6, 6, 2, 3, 2, 0}));
  std::string text = "unchanged";
  EXPECT_FALSE(store_.readLine(text, 0));
  EXPECT_FALSE(store_.writeLine("c"));
  EXPECT_EQ(text, "unchanged");
  EXPECT_EQ(store_.header(), (IndexHeader{6, 6, 2, 3, 2, 0}));
  EXPECT_EQ(files_.DataBytes(), "a\r\nb\r\n===>\r\n");
  EXPECT_TRUE(store_.Close());
}

TEST_F(ReportFileBase, StoreOpenedForReadingRefusesToWrite) {
  Create(3);
  Append({"a"});
  const std::string index = files_.IndexBytes();
  const std::string data = files_.DataBytes();
  ASSERT_TRUE(store_.OpenRead(files_.Path()));
  EXPECT_FALSE(store_.writeLine("b"));
  EXPECT_FALSE(store_.setPositionInIndexFile(0, 5));
  EXPECT_EQ(store_.writePositionsToFile(), -1);
  EXPECT_EQ(store_.header(), (IndexHeader{3, 3, 1, 3, 1, 0}));
  EXPECT_EQ(files_.IndexBytes(), index);
  EXPECT_EQ(files_.DataBytes(), data);
}

TEST_F(ReportFileBase, DataFileSizeIsThatOfTheFileNow) {
  Create(3);
  EXPECT_EQ(store_.GetDataFileSize(), 0);
  Append({"hello"});
  EXPECT_EQ(store_.GetDataFileSize(), 13);
  Append({"again"});
  EXPECT_EQ(store_.GetDataFileSize(), 20);
  EXPECT_EQ(Slot(0), "hello\r\n");
}

TEST_F(ReportFileBase, DataFileSizeBeyondFourGigabytesIsExact) {
  Create(3);
  ASSERT_EQ(truncate(files_.DataPath().c_str(), 0x123456789), 0);
  EXPECT_EQ(store_.GetDataFileSize(), 0x123456789);
}

// A hole of gigabytes reads as NUL bytes, so a record in it has no text. One read of the text, between the two reads of
// the slot, is enough to find this.
TEST_F(ReportFileBase, RecordInAHoleIsEmptyAndReadAtOnce) {
  files_.Make(StoreFiles::FullRing(1), {100}, "a\r\n");
  ASSERT_EQ(truncate(files_.DataPath().c_str(), 0x200000000), 0);
  ASSERT_TRUE(store_.OpenRead(files_.Path()));
  const CountedCalls reads(FileCall::kReadAt);
  EXPECT_EQ(Slot(0), "");
  EXPECT_EQ(reads.Calls(), 3);
}

TEST_F(ReportFileBase, QuirkWritePositionIsCutTo32BitsAndTheMarkerIsNot) {
  files_.Make({.writePosition = 0xFFFFFFFE, .fileEnd = 0xFFFFFFFE, .maxRecord = 3}, {}, "");
  ASSERT_TRUE(store_.Open(files_.Path(), 3));
  Append({"abc"});
  EXPECT_EQ(store_.header(), (IndexHeader{3, 0xFFFFFFFE, 1, 3, 1, 0}));
  EXPECT_EQ(store_.GetDataFileSize(), 0x100000009);
  EXPECT_EQ(Slot(0), "abc\r\n");
}

TEST_F(ReportFileBase, ElementCountWrapsAndRestartsTheDataFile) {
  files_.Make({.writePosition = 4, .fileEnd = 9, .elementCount = 0xFFFFFFFF, .maxRecord = 3}, {}, "0123");
  ASSERT_TRUE(store_.Open(files_.Path(), 3));
  Append({"a"});
  EXPECT_EQ(store_.header(), (IndexHeader{0, 7, 0, 3, 1, 0}));
}

TEST_F(ReportFileBase, RingWithoutSlotsTakesRecordsWithoutDividingByZero) {
  files_.Make({.maxRecord = 0}, {}, "");
  ASSERT_TRUE(store_.Open(files_.Path(), 3));
  Append({"a", "b"});
  EXPECT_EQ(store_.header(), (IndexHeader{6, 6, 2, 0, 0, 0}));
  EXPECT_THAT(files_.Slots(), ElementsAre(3));
}

TEST_F(ReportFileBase, AppendMakesThreeCalls) {
  Create(3);
  Append({"a"});
  const CountedCalls writes(FileCall::kAnyWriteAt);
  const CountedCalls reads(FileCall::kReadAt);
  Append({"b"});
  EXPECT_EQ(writes.Calls(), 3);
  EXPECT_EQ(reads.Calls(), 0);
}

TEST_F(ReportFileBase, PrintsEveryRecordOldestFirst) {
  Create(3);
  Append({"a", "b", "c", "d"});
  testing::internal::CaptureStdout();
  store_.printAllRecords();
  (void)std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "0::b\r\n1::c\r\n2::d\r\n===\n");
}

TEST_F(ReportFileBase, PrintsAnEmptyStoreAsItsLastLine) {
  Create(3);
  testing::internal::CaptureStdout();
  store_.printAllRecords();
  (void)std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "===\n");
}

TEST_F(ReportFileBase, QuirkPrintingRepeatsThePreviousRecordForOneThatCannotBeRead) {
  files_.Make({.maxRecord = 3, .highestIndex = 2, .oldestIndex = 1}, {0, 3}, "a\r\nb\r\n");
  ASSERT_TRUE(store_.OpenRead(files_.Path()));
  testing::internal::CaptureStdout();
  store_.printAllRecords();  // slots 1 and 2; slot 2 is not in use
  (void)std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "0::b\r\n1::b\r\n===\n");
}

TEST_F(ReportFileBase, PrintsARingWithoutSlotsInTheOrderOfTheSlots) {
  files_.Make({.maxRecord = 0, .highestIndex = 3, .oldestIndex = 1}, {0, 3, 6}, "a\r\nb\r\nc\r\n");
  ASSERT_TRUE(store_.OpenRead(files_.Path()));
  testing::internal::CaptureStdout();
  store_.printAllRecords();  // slots 1, 2 and 3; slot 3 is not in use
  (void)std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "0::b\r\n1::c\r\n2::c\r\n===\n");
}

TEST_F(ReportFileBase, EveryPrefixOfAnIndexFileIsReadWithoutHarm) {
  Create(3);
  Append({"a", "b", "c", "d"});
  const std::string index = files_.IndexBytes();
  for (std::size_t size = 0; size <= index.size(); ++size) {
    WriteFile(files_.IndexPath(), index.substr(0, size));
    CReportFileBase reader;
    ASSERT_TRUE(reader.OpenRead(files_.Path()));
    const std::size_t expected = size >= sizeof(IndexHeader) ? 3 : 0;
    EXPECT_EQ(ReadAll(reader).size(), expected) << size;
  }
}

TEST_F(ReportFileBase, EveryPrefixOfADataFileIsReadUpToItsEnd) {
  Create(3);
  Append({"aa", "bb", "cc"});
  const std::string data = files_.DataBytes();
  for (std::size_t size = 0; size <= data.size(); ++size) {
    WriteFile(files_.DataPath(), data.substr(0, size));
    std::vector<std::string> expected;
    for (const std::size_t at : {0U, 4U, 8U}) {
      const std::string rest = at < size ? data.substr(at, std::min<std::size_t>(4, size - at)) : "";
      expected.push_back(rest.size() == 4 ? rest : rest + "\xFF");
    }
    EXPECT_EQ(ReadAll(files_), expected) << size;
  }
}

}  // namespace
}  // namespace qx::test
