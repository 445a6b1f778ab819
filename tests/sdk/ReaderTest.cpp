// Tests the reader of a report: records of a snapshot, torn and damaged records, new records, cursors that survive
// restarts.
#include "sdk/Reader.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sdk/Writer.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr milliseconds kLong{20000};

class SdkReader : public testing::Test {
 protected:
  void Append(const std::vector<std::string>& texts) {
    if (!writer_.IsOpen()) {
      ASSERT_FALSE(writer_.Open(files_.Base(), slots_).Failed());
    }
    ASSERT_FALSE(writer_.Append(texts).Failed());
  }
  void AppendNumbered(int first, int last) {
    std::vector<std::string> texts;
    for (int i = first; i <= last; ++i) texts.push_back("record " + std::to_string(i));
    Append(texts);
  }

  // "text", "text (damaged)", "(overwritten)"
  template <typename AnyRecord>
  static std::string Shown(const AnyRecord& record) {
    const std::string text(record.text);
    if (record.state == RecordState::kDamaged) return text + " (damaged)";
    return record.state == RecordState::kWhole ? text : text + "(overwritten)";
  }
  std::vector<std::string> All(std::uint32_t age = 0) {
    std::vector<std::string> shown;
    for (auto at = reader_.begin(age); at != reader_.end(); ++at) shown.push_back(Shown(*at));
    EXPECT_FALSE(reader_.LastError().Failed()) << reader_.LastError().text;
    return shown;
  }
  std::vector<std::string> Opened() {
    const Error error = reader_.Open(files_.Base());
    if (error.Failed()) return {error.text};
    return All();
  }
  std::vector<std::string> New() {
    std::vector<std::string> shown;
    while (const auto record = reader_.Next()) shown.push_back(Shown(*record));
    EXPECT_FALSE(reader_.LastError().Failed()) << reader_.LastError().text;
    return shown;
  }

  StoreFiles files_;
  Writer writer_;
  Reader reader_;
  std::uint32_t slots_ = 5;
};

TEST_F(SdkReader, LoopReturnsTheRecordsFromTheOldestOn) {
  Append({"a", "", "c\r"});
  EXPECT_THAT(Opened(), ElementsAre("a", "", "c\r"));
  AppendNumbered(1, 4);
  EXPECT_THAT(All(), ElementsAre("(overwritten)", "(overwritten)", "c\r"))
      << "the snapshot is the old one: two were replaced";
  ASSERT_FALSE(reader_.Refresh().Failed());
  EXPECT_THAT(All(), ElementsAre("c\r", "record 1", "record 2", "record 3", "record 4"));
  EXPECT_THAT(All(3), ElementsAre("record 3", "record 4"));
  EXPECT_THAT(All(5), IsEmpty());
}

TEST_F(SdkReader, EveryPhaseOfRingAndDataFileIsWhole) {
  for (const std::uint32_t slots : {1U, 2U, 3U, 7U}) {
    const StoreFiles files;
    Writer writer;
    ASSERT_FALSE(writer.Open(files.Base(), slots).Failed());
    std::vector<std::string> expected;
    for (int i = 0; i < 40; ++i) {
      expected.push_back("same length " + std::to_string(100 + i));
      ASSERT_FALSE(writer.Append(expected.back()).Failed());
      if (expected.size() > slots) expected.erase(expected.begin());
      Reader reader;
      ASSERT_FALSE(reader.Open(files.Base()).Failed());
      std::vector<std::string> found;
      for (const RecordView& record : reader) found.push_back(Shown(record));
      if (slots == 1 && i % 2 == 0 && i > 0) continue;
      ASSERT_EQ(found, expected) << slots << " slots, record " << i;
    }
  }
}

TEST_F(SdkReader, LargeReportsAreReadInWindows) {
  slots_ = 20000;
  std::vector<std::string> texts;
  for (int i = 0; i < 30000; ++i)
    texts.push_back(std::string(static_cast<std::size_t>(i % 90), 'x') + std::to_string(i));
  Append(texts);
  texts.erase(texts.begin(), texts.begin() + 10000);
  EXPECT_EQ(Opened(), texts);
  EXPECT_EQ(reader_.Count(), 20000U);
}

TEST_F(SdkReader, RecordsAreReadByAge) {
  AppendNumbered(1, 7);
  ASSERT_FALSE(reader_.Open(files_.Base()).Failed());
  Record record;
  ASSERT_FALSE(reader_.Read(0, record).Failed());
  EXPECT_EQ(record.text, "record 3");
  ASSERT_FALSE(reader_.Read(4, record).Failed());
  EXPECT_EQ(record.text, "record 7");
  const Error error = reader_.Read(5, record);
  EXPECT_EQ(error.code, ErrorCode::kBadArgument);
  EXPECT_EQ(error.text, "there is no record of age 5, only 5 records");
}

TEST_F(SdkReader, RecordsThatReadersCutAreDamaged) {
  CReportFileBase agent;
  ASSERT_TRUE(agent.Open(files_.Path(), 9));
  for (const char* text : {"good", "line\nfeed", "all\xFFones", "a\r\nb", "good too"})
    ASSERT_TRUE(agent.writeLine(text));
  EXPECT_THAT(Opened(), ElementsAre("good", "line\n (damaged)", "all\xFF (damaged)", "a (damaged)", "good too"));
}

TEST_F(SdkReader, TextThatLongerRecordsOverwriteIsNotReturned) {
  slots_ = 3;
  Append({"1", "2", "3", "4", "5", "6"});
  EXPECT_THAT(Opened(), ElementsAre("4", "5", "6"));
  Append({"longer"});  // from offset 0, over the texts up to "5"
  EXPECT_THAT(Opened(), ElementsAre("(overwritten)", "6", "longer"));
}

TEST_F(SdkReader, DamagedFilesGiveDamagedRecords) {
  AppendNumbered(1, 3);
  writer_.Close();
  files_.WriteData(12, std::string("\0", 1));
  EXPECT_THAT(Opened(), ElementsAre("record 1", "re (damaged)", "record 3"));
  files_.WriteSlot(1, 3);
  EXPECT_THAT(Opened(), ElementsAre("record 1 (damaged)", "ord 1 (damaged)", "record 3"));
}

TEST_F(SdkReader, HeaderThatNoWriterLeavesIsAnError) {
  files_.Make({0, 0, 5, 0, 4, 0}, {0, 0, 0, 0}, "a\r\n");
  EXPECT_EQ(reader_.Open(files_.Base()).code, ErrorCode::kDamaged);
  files_.Make({3, 3, 5, 9000000, 8000000, 0}, {0}, "a\r\n");
  const Error error = reader_.Open(files_.Base());
  EXPECT_EQ(error.code, ErrorCode::kDamaged);
  EXPECT_THAT(error.text, HasSubstr("it counts more records than the data file can hold"));
}

TEST_F(SdkReader, RecordsThatAKilledWriterDidNotCountAreLeftOut) {
  files_.Make({9, 9, 3, 3, 3, 0}, {9, 12, 6}, "a\r\nb\r\nc\r\nd\r\ne\r\n===>\r\n");
  EXPECT_THAT(Opened(), ElementsAre("c"));
}

TEST_F(SdkReader, ReportThatIsMissingOrNotOpenIsAnError) {
  EXPECT_EQ(reader_.Open(files_.Base()).code, ErrorCode::kNotFound);
  EXPECT_EQ(reader_.Open("").code, ErrorCode::kBadArgument);
  EXPECT_EQ(reader_.Refresh().code, ErrorCode::kNotOpen);
  EXPECT_FALSE(reader_.Next().has_value());
  EXPECT_EQ(reader_.LastError().code, ErrorCode::kNotOpen);
  Record record;
  EXPECT_EQ(reader_.Read(0, record).code, ErrorCode::kNotOpen);
}

TEST_F(SdkReader, ReadErrorEndsTheLoopWithTheReason) {
  AppendNumbered(1, 3);
  ASSERT_FALSE(reader_.Open(files_.Base()).Failed());
  const FailingCall fault({.call = FileCall::kReadAt, .times = kAlways, .error = EIO});
  EXPECT_TRUE(reader_.begin() == reader_.end());
  EXPECT_EQ(reader_.LastError().system_error, EIO);
  EXPECT_THAT(reader_.LastError().text, HasSubstr("Input/output error"));
}

TEST_F(SdkReader, NextReturnsEachRecordOnce) {
  AppendNumbered(1, 3);
  ASSERT_FALSE(reader_.Open(files_.Base()).Failed());
  EXPECT_THAT(New(), ElementsAre("record 1", "record 2", "record 3"));
  EXPECT_THAT(New(), IsEmpty());
  AppendNumbered(4, 7);
  EXPECT_THAT(New(), ElementsAre("record 4", "record 5", "record 6", "record 7"));
}

TEST_F(SdkReader, CursorContinuesInAnotherReaderAfterTheRingHasMoved) {
  AppendNumbered(1, 5);
  ASSERT_FALSE(reader_.Open(files_.Base()).Failed());
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(reader_.Next().has_value());
  const std::string cursor = reader_.Cursor();
  EXPECT_LT(cursor.size(), 700U);
  reader_.Close();
  AppendNumbered(6, 7);  // records 3 to 7 are left
  ASSERT_FALSE(reader_.Open(files_.Base(), cursor).Failed());
  EXPECT_THAT(New(), ElementsAre("record 4", "record 5", "record 6", "record 7"));
}

TEST_F(SdkReader, RandomRestartsReturnEachRecordOnce) {
  std::mt19937_64 random(Seed("SdkReader"));
  slots_ = 50;
  int written = 0;
  std::vector<std::string> found;
  std::string cursor;
  AppendNumbered(1, 1);
  written = 1;
  for (int round = 0; round < 60; ++round) {
    ASSERT_FALSE(reader_.Open(files_.Base(), cursor).Failed());
    for (auto left = random() % 30; left > 0; --left) {
      const auto record = reader_.Next();
      if (!record.has_value()) break;
      ASSERT_EQ(record->event, ReadEvent::kNone);
      found.push_back(record->text);
    }
    cursor = reader_.Cursor();
    const int unread = written - static_cast<int>(found.size());
    const int more = static_cast<int>(random() % 20);
    if (unread + more > 40) continue;
    AppendNumbered(written + 1, written + more);
    written += more;
  }
  ASSERT_GT(found.size(), 300U);
  for (std::size_t i = 0; i < found.size(); ++i) ASSERT_EQ(found[i], "record " + std::to_string(i + 1));
}

TEST_F(SdkReader, RecordsThatTheRingOverwroteAreReportedAsAGap) {
  AppendNumbered(1, 5);
  ASSERT_FALSE(reader_.Open(files_.Base()).Failed());
  EXPECT_EQ(New().size(), 5U);
  AppendNumbered(6, 14);
  const auto record = reader_.Next();
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->text, "record 10");
  EXPECT_EQ(record->event, ReadEvent::kGap);
  EXPECT_EQ(reader_.Next()->event, ReadEvent::kNone);
}

TEST_F(SdkReader, ReportThatIsStartedOverIsReported) {
  AppendNumbered(1, 5);
  ASSERT_FALSE(reader_.Open(files_.Base()).Failed());
  EXPECT_EQ(New().size(), 5U);
  writer_.Close();
  WriteFile(files_.IndexPath(), "");
  WriteFile(files_.DataPath(), "");
  AppendNumbered(100, 101);
  const auto record = reader_.Next();
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->text, "record 100");
  EXPECT_EQ(record->event, ReadEvent::kStartedOver);
}

// Renames the files of another report over those of the fixture, as a restore does.
void RestoreFrom(const StoreFiles& backup, const StoreFiles& files) {
  ASSERT_EQ(rename(backup.IndexPath().c_str(), files.IndexPath().c_str()), 0);
  ASSERT_EQ(rename(backup.DataPath().c_str(), files.DataPath().c_str()), 0);
}

void MakeReport(const StoreFiles& files, const std::vector<std::string>& texts) {
  Writer writer;
  ASSERT_FALSE(writer.Open(files.Base(), 5).Failed());
  ASSERT_FALSE(writer.Append(texts).Failed());
}

// The restored report has the same header as the old one; only its files are other files.
TEST_F(SdkReader, ReportThatWasRestoredIsRead) {
  AppendNumbered(1, 3);
  ASSERT_THAT(Opened(), ElementsAre("record 1", "record 2", "record 3"));
  ASSERT_THAT(New(), SizeIs(3));
  const StoreFiles backup;
  MakeReport(backup, {"backup 7", "backup 8", "backup 9"});
  RestoreFrom(backup, files_);
  EXPECT_THAT(All(), ElementsAre("record 1", "record 2", "record 3")) << "the snapshot is the old one";
  ASSERT_FALSE(reader_.Refresh().Failed());
  EXPECT_THAT(All(), ElementsAre("backup 7", "backup 8", "backup 9"));
  EXPECT_THAT(New(), ElementsAre("backup 7", "backup 8", "backup 9"));
}

TEST_F(SdkReader, ReportThatIsMissingForAWhileIsReadAgain) {
  AppendNumbered(1, 3);
  ASSERT_THAT(Opened(), SizeIs(3));
  ASSERT_THAT(New(), SizeIs(3));
  writer_.Close();
  ASSERT_EQ(unlink(files_.IndexPath().c_str()) + unlink(files_.DataPath().c_str()), 0);
  EXPECT_EQ(reader_.Refresh().code, ErrorCode::kNotFound);
  EXPECT_EQ(reader_.Count(), 0U);
  EXPECT_FALSE(reader_.Next().has_value());
  EXPECT_EQ(reader_.LastError().code, ErrorCode::kNotFound);
  AppendNumbered(1, 2);
  ASSERT_FALSE(reader_.Refresh().Failed());
  EXPECT_THAT(All(), ElementsAre("record 1", "record 2"));
}

TEST_F(SdkReader, OneFileThatIsReplacedLaterIsNoticed) {
  AppendNumbered(1, 3);
  ASSERT_THAT(Opened(), SizeIs(3));
  const StoreFiles backup;
  MakeReport(backup, {"backup 7", "backup 8", "backup 9"});
  ASSERT_EQ(rename(backup.DataPath().c_str(), files_.DataPath().c_str()), 0);
  ASSERT_FALSE(reader_.Refresh().Failed());
  EXPECT_THAT(All(), ElementsAre("backup 7", "backup 8", "backup 9"));
}

TEST_F(SdkReader, ReportThatIsEmptiedInPlaceHasNoRecords) {
  AppendNumbered(1, 3);
  ASSERT_THAT(Opened(), SizeIs(3));
  ASSERT_EQ(truncate(files_.IndexPath().c_str(), 0) + truncate(files_.DataPath().c_str(), 0), 0);
  EXPECT_THAT(All(), ElementsAre("(overwritten)", "(overwritten)", "(overwritten)")) << "the snapshot is the old one";
  ASSERT_FALSE(reader_.Refresh().Failed());
  EXPECT_THAT(All(), IsEmpty());
}

// The header is the same as before; only the time of the last write is different.
TEST_F(SdkReader, ReportThatIsFilledAgainInPlaceIsNoticed) {
  AppendNumbered(1, 3);
  ASSERT_THAT(Opened(), SizeIs(3));
  ASSERT_THAT(New(), SizeIs(3));
  const StoreFiles others;
  MakeReport(others, {"others 7", "others 8", "others 9"});
  WriteFile(files_.DataPath(), others.DataBytes());
  WriteFile(files_.IndexPath(), others.IndexBytes());
  const timespec later[2] = {{.tv_sec = 2000000000, .tv_nsec = 0}, {.tv_sec = 2000000000, .tv_nsec = 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, files_.IndexPath().c_str(), later, 0), 0);
  EXPECT_THAT(New(), ElementsAre("others 7", "others 8", "others 9"));
}

TEST_F(SdkReader, FilesStayOpenAcrossRefreshAndWait) {
  AppendNumbered(1, 3);
  ASSERT_THAT(Opened(), SizeIs(3));
  ASSERT_THAT(New(), SizeIs(3));
  const FailingCall opens({.call = FileCall::kOpen, .path = "r1.ind", .nth = kAlways});
  const FailingCall data_opens({.call = FileCall::kOpen, .path = "r1.dat", .nth = kAlways});
  for (int record = 4; record < 9; ++record) {
    AppendNumbered(record, record);
    ASSERT_FALSE(reader_.Refresh().Failed());
    EXPECT_THAT(All(), SizeIs(std::min(record, 5)));
    EXPECT_THAT(New(), SizeIs(1));
    EXPECT_FALSE(reader_.Next(milliseconds(5)).has_value());
  }
  EXPECT_EQ(opens.Calls() + data_opens.Calls(), 0);
}

// The reader reads header and slots, and then needs three reads for each 256 KiB of text.
TEST_F(SdkReader, LoopReadsWholeRuns) {
  slots_ = 20000;
  Append(std::vector<std::string>(20000, std::string(50, 'x')));
  ASSERT_FALSE(reader_.Open(files_.Base()).Failed());
  const FailingCall reads({.call = FileCall::kReadAt, .nth = kAlways});
  ASSERT_FALSE(reader_.Refresh().Failed());
  EXPECT_THAT(All(), SizeIs(20000));
  EXPECT_LT(reads.Calls(), 25);
}

TEST_F(SdkReader, ADamagedRecordDoesNotMakeTheOthersSlow) {
  slots_ = 20000;
  std::vector<std::string> texts(3000, std::string(50, 'x'));
  Append(texts);
  files_.WriteData(52 * 1500 + 7, "\n");
  ASSERT_FALSE(reader_.Open(files_.Base()).Failed());
  const FailingCall reads({.call = FileCall::kReadAt, .nth = kAlways});
  texts[1500] = "xxxxxxx\n (damaged)";
  EXPECT_EQ(All(), texts);
  EXPECT_LT(reads.Calls(), 10);
}

TEST_F(SdkReader, RecordThatIsLongerThanAWindowIsWhole) {
  const std::string longest(kRecordTextMax, 'x');
  Append({"short", longest, "short again"});
  EXPECT_THAT(Opened(), ElementsAre("short", longest, "short again"));
}

TEST_F(SdkReader, TextsThatAreNoCursorAreRefused) {
  AppendNumbered(1, 3);
  ASSERT_FALSE(reader_.Open(files_.Base()).Failed());
  EXPECT_EQ(New().size(), 3U);
  const std::string good = reader_.Cursor();
  ASSERT_FALSE(reader_.Open(files_.Base(), good).Failed());
  EXPECT_EQ(reader_.Cursor(), good);
  for (const std::string& bad : {std::string("x"), std::string("qx1"), std::string("qx1 1"), "qx2" + good.substr(3),
                                 good + " ", good + " 12", good.substr(0, good.size() - 1), std::string("qx1 1 -1"),
                                 std::string("qx1 4294967296 0"), std::string("qx1 0 0 0123456789abcdef")}) {
    EXPECT_EQ(reader_.Open(files_.Base(), bad).code, ErrorCode::kBadArgument) << bad;
  }
}

TEST_F(SdkReader, WaitEndsWithTheTimeOut) {
  AppendNumbered(1, 1);
  ASSERT_FALSE(reader_.Open(files_.Base()).Failed());
  EXPECT_THAT(New(), ElementsAre("record 1"));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(reader_.Next(milliseconds(60)).has_value());
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(60));
  EXPECT_FALSE(reader_.LastError().Failed());
}

class SdkReaderThreads : public SdkReader {};

TEST_F(SdkReaderThreads, WaitEndsWithTheRecordThatIsAppended) {
  AppendNumbered(1, 1);
  ASSERT_FALSE(reader_.Open(files_.Base()).Failed());
  EXPECT_THAT(New(), ElementsAre("record 1"));
  const auto begin = std::chrono::steady_clock::now();
  std::thread agent([&] {
    std::this_thread::sleep_for(milliseconds(30));
    (void)writer_.Append("record 2").Failed();
  });
  const auto record = reader_.Next(kLong);
  agent.join();
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->text, "record 2");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kLong);
}

// A writer never pauses. Each record that is returned as whole must be a record that it appended.
TEST_F(SdkReaderThreads, WholeRecordsUnderAWriterAreTrueRecords) {
  slots_ = 64;
  Append({"0 0"});
  std::atomic<bool> is_over = false;
  std::thread agent([&] {
    for (int i = 1; !is_over; ++i) {
      const std::string number = std::to_string(i);
      const std::string text = number + " " + std::string(static_cast<std::size_t>(i % 7), 'x') + number;
      (void)writer_.Append({text, text, text}).Failed();
    }
  });
  const auto is_true = [](const std::string& text) {
    const std::size_t space = text.find(' ');
    return space != std::string::npos && text.ends_with(text.substr(0, space)) &&
           text.substr(space + 1, text.size() - 2 * space - 1).find_first_not_of('x') == std::string::npos;
  };
  long whole = 0;
  for (int round = 0; round < 400; ++round) {
    ASSERT_FALSE(reader_.Open(files_.Base()).Failed());
    for (const RecordView& record : reader_) {
      if (!record.IsWhole()) continue;
      ++whole;
      EXPECT_TRUE(is_true(std::string(record.text))) << record.text;
    }
  }
  is_over = true;
  agent.join();
  EXPECT_GT(whole, 100);
}

}  // namespace
}  // namespace qx::test
