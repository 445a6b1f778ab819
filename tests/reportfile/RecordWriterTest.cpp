// Compares a batch of records with the same records appended one by one: the files must have the same bytes, also when
// writes fail.
#include "reportfile/tools/RecordWriter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using report::AppendedRecords;
using report::IndexHeader;
using report::RecordWriter;
using testing::ElementsAre;
using Texts = std::vector<std::string>;

AppendedRecords AppendAll(CReportFileBase& store, const Texts& texts) {
  const std::vector<std::string_view> views(texts.begin(), texts.end());
  return RecordWriter(store).Append(views);
}

Texts NumberedFrom(int first, int count) {
  Texts texts;
  for (int i = first; i < first + count; ++i)
    texts.push_back("record " + std::to_string(i) + std::string(static_cast<unsigned>(i % 7), 'x'));
  return texts;
}

void ExpectSameFiles(const StoreFiles& batch, const StoreFiles& single) {
  ASSERT_EQ(batch.Header(), single.Header());
  ASSERT_EQ(batch.IndexBytes(), single.IndexBytes());
  ASSERT_EQ(batch.DataBytes(), single.DataBytes());
}

TEST(RecordWriter, BatchesLeaveTheFilesOfSingleAppends) {
  std::mt19937_64 random(Seed("RecordWriter"));
  for (int life = 0; life < 150; ++life) {
    SCOPED_TRACE("life " + std::to_string(life));
    const StoreFiles batch_files;
    const StoreFiles single_files;
    CReportFileBase batch;
    CReportFileBase single;
    const auto slots = static_cast<unsigned>(random() % (life % 4 == 0 ? 4 : 60));
    ASSERT_TRUE(batch.Open(batch_files.Path(), slots));
    ASSERT_TRUE(single.Open(single_files.Path(), slots));
    const std::size_t longest = std::size_t{1} << random() % 12;
    for (int step = 0; step < 12; ++step) {
      Texts texts(random() % 50);
      for (std::string& text : texts) text.assign(random() % longest, static_cast<char>('a' + random() % 26));
      const AppendedRecords appended = AppendAll(batch, texts);
      ASSERT_EQ(appended.stored, texts.size());
      ASSERT_EQ(appended.error, 0);
      for (const std::string& text : texts) ASSERT_TRUE(single.writeLine(text.c_str()));
      ASSERT_EQ(batch.header(), single.header());
      ASSERT_NO_FATAL_FAILURE(ExpectSameFiles(batch_files, single_files));
      if (random() % 4 != 0) continue;
      ASSERT_TRUE(batch.Open(batch_files.Path(), 1));
      ASSERT_TRUE(single.Open(single_files.Path(), 1));
    }
  }
}

// Headers that no writer leaves, and headers whose counts and offsets are near the limits of their fields.
TEST(RecordWriter, BatchesToDamagedStoresLeaveTheFilesOfSingleAppends) {
  constexpr std::uint32_t kLast = std::numeric_limits<std::uint32_t>::max();
  const std::vector<IndexHeader> headers = {
      {6, 6, 2, 0, 0, 0},     {6, 6, 2, 0, 0, 7}, {6, 6, 2, 3, 9, 1},
      {6, 6, 2, 3, 3, 8},     {6, 6, 2, 5, 2, 4}, {6, 6, kLast - 3, 5, 5, 2},
      {6, 6, kLast, 5, 5, 4}, {6, 6, 9, 5, 5, 4}, {6, 6, kLast - 1, 0x80000000, 4, 0},
      {6, 200, 13, 1, 1, 0},
  };
  for (const IndexHeader& header : headers) {
    SCOPED_TRACE(testing::PrintToString(header.maxRecord) + " slots, oldest " + std::to_string(header.oldestIndex));
    const StoreFiles batch_files;
    const StoreFiles single_files;
    for (const StoreFiles* files : {&batch_files, &single_files})
      files->Make(header, {0, 3, 6, 9, 12, 15}, "a\r\nb\r\n===>\r\n");
    CReportFileBase batch;
    CReportFileBase single;
    ASSERT_TRUE(batch.Open(batch_files.Path(), 1));
    ASSERT_TRUE(single.Open(single_files.Path(), 1));
    const Texts texts = NumberedFrom(1, 23);
    EXPECT_EQ(AppendAll(batch, texts).stored, texts.size());
    for (const std::string& text : texts) ASSERT_TRUE(single.writeLine(text.c_str()));
    ExpectSameFiles(batch_files, single_files);
  }
}

TEST(RecordWriter, OffsetsBeyondFourGibAreCutAsSingleAppendsCutThem) {
  const StoreFiles batch_files;
  const StoreFiles single_files;
  const IndexHeader header = {0xFFFFFFF0, 0xFFFFFFF0, 3, 9, 3, 0};
  for (const StoreFiles* files : {&batch_files, &single_files}) files->Make(header, {0, 3, 6}, "a\r\n");
  CReportFileBase batch;
  CReportFileBase single;
  ASSERT_TRUE(batch.Open(batch_files.Path(), 1));
  ASSERT_TRUE(single.Open(single_files.Path(), 1));
  const Texts texts = {"one", "two", "three", "four"};
  EXPECT_EQ(AppendAll(batch, texts).stored, 4U);
  for (const std::string& text : texts) ASSERT_TRUE(single.writeLine(text.c_str()));
  EXPECT_EQ(batch.header(), single.header());
  EXPECT_EQ(batch_files.IndexBytes(), single_files.IndexBytes());
  EXPECT_EQ(batch.GetDataFileSize(), single.GetDataFileSize());
}

TEST(RecordWriter, APartIsThreeWritesWhateverItsRecords) {
  const StoreFiles files;
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files.Path(), 1000));
  ASSERT_TRUE(store.writeLine("first"));
  const CountedCalls writes(FileCall::kAnyWriteAt);
  EXPECT_EQ(AppendAll(store, NumberedFrom(1, 500)).stored, 500U);
  EXPECT_EQ(writes.Calls(), 3);
}

TEST(RecordWriter, ClosedStoreAndEmptyBatchWriteNothing) {
  const StoreFiles files;
  CReportFileBase store;
  EXPECT_EQ(AppendAll(store, {"a"}).error, EBADF);
  ASSERT_TRUE(store.Open(files.Path(), 3));
  EXPECT_EQ(AppendAll(store, {}).error, 0);
  EXPECT_EQ(files.IndexBytes() + files.DataBytes(), "");
}

class RecordWriterFault : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(store_.Open(files_.Path(), 5));
    ASSERT_EQ(AppendAll(store_, {"a", "b", "c", "d", "e", "f"}).stored, 6U);
    before_ = files_.Header();
  }

  StoreFiles files_;
  CReportFileBase store_;
  IndexHeader before_;
};

TEST_F(RecordWriterFault, TextsThatCannotBeWrittenLeaveHeaderAndSlotsAlone) {
  const Texts records = ReadAll(files_);
  const FailingCall fault({.call = FileCall::kWriteAt, .error = ENOSPC});
  const AppendedRecords appended = AppendAll(store_, {"new", "newer"});
  ASSERT_TRUE(fault.HasFailed());
  EXPECT_EQ(appended.stored, 0U);
  EXPECT_EQ(appended.error, ENOSPC);
  EXPECT_EQ(store_.header(), before_);
  EXPECT_EQ(files_.Header(), before_);
  EXPECT_EQ(ReadAll(files_), records);
}

TEST_F(RecordWriterFault, SlotsThatCannotBeWrittenLeaveTheHeaderAlone) {
  const FailingCall fault({.call = FileCall::kWriteAt, .nth = 1, .error = EIO});
  const AppendedRecords appended = AppendAll(store_, {std::string(600, 'n'), std::string(600, 'm')});
  ASSERT_TRUE(fault.HasFailed());
  EXPECT_EQ(appended.stored, 0U);
  EXPECT_EQ(appended.error, EIO);
  EXPECT_EQ(store_.header(), before_);
  EXPECT_EQ(files_.Header(), before_);
  EXPECT_THAT(ReadAll(files_), ElementsAre("b\r\n", "c\r\n", "d\r\n", "e\r\n", "f\r\n"));
}

TEST_F(RecordWriterFault, HeaderThatCannotBeWrittenDoesNotChangeTheResult) {
  {
    const FailingCall fault({.call = FileCall::kWriteAt, .nth = 2, .error = EIO});
    const AppendedRecords appended = AppendAll(store_, {std::string(600, 'n'), std::string(600, 'm')});
    ASSERT_TRUE(fault.HasFailed());
    EXPECT_EQ(appended.stored, 2U);
    EXPECT_EQ(appended.error, 0);
  }
  EXPECT_EQ(files_.Header(), before_);
  EXPECT_TRUE(store_.writeLine("g"));
  EXPECT_EQ(files_.Header(), store_.header());
  EXPECT_THAT(ReadAll(files_),
              ElementsAre("e\r\n", "f\r\n", std::string(600, 'n') + "\r\n", std::string(600, 'm') + "\r\n", "g\r\n"));
}

// A child whose files may not grow beyond `limit` appends twelve records; returns how many are acknowledged.
int AppendUnderLimit(const StoreFiles& files, rlim_t limit, bool is_batch) {
  return StatusOfChild([&] {
    CReportFileBase store;
    if (!LimitFileSize(limit) || !store.Open(files.Path(), 10)) return 0xFF;
    const Texts texts = NumberedFrom(1, 12);
    if (is_batch) return static_cast<int>(AppendAll(store, texts).stored);
    int stored = 0;
    while (stored < 12 && store.writeLine(texts[static_cast<std::size_t>(stored)].c_str())) ++stored;
    return stored;
  });
}

TEST(RecordWriterLimit, FullDiskKeepsWhatSingleAppendsWouldHaveKept) {
  int partly = 0;
  for (rlim_t limit = 0; limit <= 170; limit += 2) {
    SCOPED_TRACE("limit " + std::to_string(limit));
    const StoreFiles batch_files;
    const StoreFiles single_files;
    const int stored = AppendUnderLimit(batch_files, limit, true);
    ASSERT_EQ(stored, AppendUnderLimit(single_files, limit, false));
    ASSERT_EQ(batch_files.IndexBytes(), single_files.IndexBytes());
    ASSERT_EQ(ReadAll(batch_files), ReadAll(single_files));
    if (stored > 0 && stored < 12) ++partly;
  }
  EXPECT_GT(partly, 30);
}

TEST(RecordWriterRing, NewStoreKeepsItsSizeBeforeTheFirstRecord) {
  const StoreFiles files;
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files.Path(), 7));
  EXPECT_EQ(RecordWriter(store).StartRing(7), 0);
  CReportFileBase again;
  ASSERT_TRUE(again.Open(files.Path(), 3));
  EXPECT_EQ(again.header().maxRecord, 7U);
  EXPECT_EQ(RecordWriter(again).StartRing(9), 0);
  EXPECT_EQ(files.Header(), (IndexHeader{0, 0, 0, 7, 0, 0}));
}

// The files of a writer that ended after it had written `slots` slots of its next part.
class RecordWriterInterrupted : public RecordWriterFault {
 protected:
  void InterruptAfterSlots(const Texts& texts, std::size_t slots) {
    std::string data;
    std::uint32_t slot = before_.oldestIndex;
    std::uint32_t offset = before_.writePosition;
    for (std::size_t i = 0; i < texts.size(); ++i) {
      if (i < slots) files_.WriteSlot(slot++, offset);
      data += texts[i] + "\r\n";
      offset += static_cast<std::uint32_t>(texts[i].size()) + 2;
    }
    files_.WriteData(before_.writePosition, data + "===>\r\n");
  }

  std::uint32_t Finish() {
    EXPECT_TRUE(store_.Open(files_.Path(), 5));
    return RecordWriter(store_).FinishInterrupted();
  }
};

TEST_F(RecordWriterInterrupted, PartOfAKilledWriterIsCounted) {
  const Texts texts = {"new 1", "new two", "n3"};
  InterruptAfterSlots(texts, 3);
  EXPECT_THAT(ReadAll(files_), ElementsAre("new 1\r\n", "new two\r\n", "n3\r\n", "e\r\n", "f\r\n"));
  EXPECT_EQ(Finish(), 3U);
  EXPECT_THAT(ReadAll(files_), ElementsAre("e\r\n", "f\r\n", "new 1\r\n", "new two\r\n", "n3\r\n"));
  const StoreFiles single_files;
  CReportFileBase single;
  ASSERT_TRUE(single.Open(single_files.Path(), 5));
  for (const char* text : {"a", "b", "c", "d", "e", "f", "new 1", "new two", "n3"}) ASSERT_TRUE(single.writeLine(text));
  ExpectSameFiles(files_, single_files);
}

TEST_F(RecordWriterInterrupted, SlotsThatWereNotWrittenAreNotCounted) {
  InterruptAfterSlots({"new 1", "new two", "n3"}, 2);
  EXPECT_EQ(Finish(), 2U);
  EXPECT_EQ(files_.DataBytes().substr(store_.header().writePosition, 6), "===>\r\n");
  EXPECT_THAT(ReadAll(files_), ElementsAre("d\r\n", "e\r\n", "f\r\n", "new 1\r\n", "new two\r\n"));
  EXPECT_TRUE(store_.writeLine("next"));
  EXPECT_THAT(ReadAll(files_), ElementsAre("e\r\n", "f\r\n", "new 1\r\n", "new two\r\n", "next\r\n"));
}

TEST_F(RecordWriterInterrupted, SoundStoresAreLeftAlone) {
  const std::string index = files_.IndexBytes();
  const std::string data = files_.DataBytes();
  EXPECT_EQ(Finish(), 0U);
  InterruptAfterSlots({"new 1", "new two"}, 0);
  EXPECT_EQ(Finish(), 0U);
  EXPECT_EQ(files_.IndexBytes(), index);
  EXPECT_TRUE(files_.DataBytes().starts_with(data.substr(0, before_.writePosition)));
}

// A slot leads to the end marker by chance, as it may after longer records.
TEST_F(RecordWriterInterrupted, TheEndMarkerIsNotARecordOfAKilledWriter) {
  files_.WriteSlot(before_.oldestIndex, before_.writePosition);
  EXPECT_EQ(Finish(), 0U);
  EXPECT_EQ(files_.Header(), before_);
}

// The new record ends where the text of an old one begins, so the slot of the old record leads to the new end marker.
TEST_F(RecordWriterInterrupted, OldSlotThatLeadsToTheNewEndMarkerIsNotCounted) {
  const StoreFiles files;
  const StoreFiles single_files;
  for (const StoreFiles* each : {&files, &single_files}) {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(each->Path(), 3));
    for (const char* text : {"1", "2", "3", "4", "5", "6"}) ASSERT_TRUE(store.writeLine(text));
  }
  ASSERT_THAT(files.Slots(), ElementsAre(9, 12, 15));
  files.WriteData(0, "0123456789\r\n===>\r\n");
  files.WriteSlot(0, 0);
  CReportFileBase next;
  ASSERT_TRUE(next.Open(files.Path(), 3));
  EXPECT_EQ(RecordWriter(next).FinishInterrupted(), 1U);
  CReportFileBase single;
  ASSERT_TRUE(single.Open(single_files.Path(), 3));
  ASSERT_TRUE(single.writeLine("0123456789"));
  ExpectSameFiles(files, single_files);
}

// Short texts of many lengths, so that old slots often lead to ends of new records.
TEST_F(RecordWriterInterrupted, EachPartIsCountedAsItWasWritten) {
  std::mt19937_64 random(Seed("RecordWriterInterrupted"));
  int counted = 0;
  for (int life = 0; life < 40; ++life) {
    SCOPED_TRACE("life " + std::to_string(life));
    const StoreFiles files;
    const StoreFiles single_files;
    CReportFileBase store;
    CReportFileBase single;
    const auto slots = static_cast<unsigned>(2 + random() % 6);
    ASSERT_TRUE(store.Open(files.Path(), slots));
    ASSERT_TRUE(single.Open(single_files.Path(), slots));
    for (int step = 0; step < 40; ++step) {
      const IndexHeader before = store.header();
      Texts texts(1 + random() % report::RecordsInPart(before));
      for (std::string& text : texts) text.assign(random() % 14, static_cast<char>('a' + step % 26));
      ASSERT_EQ(AppendAll(store, texts).error, 0);
      for (const std::string& text : texts) ASSERT_TRUE(single.writeLine(text.c_str()));
      if (before.highestIndex == slots) {  // the header is the one before the part, and the next writer opens the store
        files.WriteHeader(before);
        ASSERT_TRUE(store.Open(files.Path(), 1));
        ASSERT_EQ(RecordWriter(store).FinishInterrupted(), texts.size()) << "step " << step;
        ++counted;
      }
      ASSERT_NO_FATAL_FAILURE(ExpectSameFiles(files, single_files)) << "step " << step;
    }
  }
  EXPECT_GT(counted, 500);
}

// Between two appends no part is in flight, at every phase of the ring and the data file.
TEST_F(RecordWriterInterrupted, NothingIsCountedBetweenTwoAppends) {
  for (const unsigned slots : {1U, 2U, 5U}) {
    const StoreFiles files;
    CReportFileBase store;
    ASSERT_TRUE(store.Open(files.Path(), slots));
    for (const std::string& text : NumberedFrom(1, 40)) {
      ASSERT_TRUE(store.writeLine(text.c_str()));
      ASSERT_EQ(RecordWriter(store).FinishInterrupted(), 0U);
    }
  }
}

}  // namespace
}  // namespace qx::test
