// Tests the promises of the store after failed writes, with damaged index files, and after writers were killed.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using report::IndexHeader;
using testing::ElementsAre;

class ReportFileBaseFault : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(store_.Open(files_.Path(), 3));
    for (const char* text : {"a", "b", "c", "d"}) ASSERT_TRUE(store_.writeLine(text));
  }

  // Reads damaged files: every read ends, and runs of records are those that readLine returns.
  void ReadEverythingThatEnds() {
    CReportFileBase reader;
    ASSERT_TRUE(reader.OpenRead(files_.Path()));
    report::RecordReader records(reader);
    const IndexHeader header = reader.header();
    for (const std::uint32_t first : {0U, 1U, header.oldestIndex, header.highestIndex - 1, header.maxRecord - 1}) {
      std::string expected;
      std::string line;
      for (std::uint32_t i = 0; i < 4 && reader.readLine(line, first + i); ++i) expected += line;
      std::string taken;
      (void)records.Take(first, {4, std::size_t{1} << 20}, &taken);
      EXPECT_EQ(taken, expected);
    }
    const CountedCalls reads(FileCall::kReadAt);
    std::string chunk;
    (void)records.Take(0, {header.highestIndex, std::size_t{1} << 20}, &chunk);
    EXPECT_LT(chunk.size(), std::size_t{1} << 20);
    EXPECT_LE(reads.Calls(), 20);
  }

  // A new writer on the same files appends a record. If the slot of the record can be read, it leads to that record.
  void AppendAndReadBack() {
    CReportFileBase writer;
    ASSERT_TRUE(writer.Open(files_.Path(), 3));
    const std::uint32_t slot = report::SlotForNewRecord(writer.header());
    ASSERT_TRUE(writer.writeLine("new"));
    std::string line;
    EXPECT_TRUE(!writer.readLine(line, slot) || line == "new\r\n") << line;
  }

  static std::string Overlaid(std::string bytes, std::size_t at, const std::string& with) {
    if (bytes.size() < at + with.size()) bytes.resize(at + with.size());
    return bytes.replace(at, with.size(), with);
  }

  StoreFiles files_;
  CReportFileBase store_;

  // The store of SetUp: slots 9 3 6, the data "a b c d" and the marker at 12.
  const IndexHeader before_{12, 12, 4, 3, 3, 1};
  const std::string data_before_ = "a\r\nb\r\nc\r\nd\r\n===>\r\n";
};

TEST_F(ReportFileBaseFault, RecordThatCannotBeWrittenLeavesHeaderAndSlotsUnchanged) {
  {
    const FailingCall fault({.call = FileCall::kAnyWriteAt, .error = ENOSPC});
    EXPECT_FALSE(store_.writeLine("new"));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(fault.Calls(), 1);
  }
  EXPECT_EQ(store_.header(), before_);
  EXPECT_EQ(files_.Header(), before_);
  EXPECT_THAT(files_.Slots(), ElementsAre(9, 3, 6));
  EXPECT_EQ(files_.DataBytes(), data_before_);
}

// "new\r\n" has five bytes. If fewer of them are in the file, the record is lost, and the written part does no harm.
TEST_F(ReportFileBaseFault, RecordThatIsCutShortIsNotIndexed) {
  for (std::uint64_t some = 1; some < 5; ++some) {
    const FullDisk fault(1, some);
    EXPECT_FALSE(store_.writeLine("new"));
    EXPECT_EQ(fault.Calls(), 2);
    EXPECT_EQ(store_.header(), before_);
    EXPECT_EQ(files_.Header(), before_);
    EXPECT_THAT(files_.Slots(), ElementsAre(9, 3, 6));
    EXPECT_EQ(files_.DataBytes(), Overlaid(data_before_, 12, std::string("new\r\n").substr(0, some)));
    EXPECT_THAT(ReadAll(files_), ElementsAre("b\r\n", "c\r\n", "d\r\n"));
  }
}

TEST_F(ReportFileBaseFault, RecordWhoseMarkerIsCutShortIsGood) {
  const std::string record_and_marker = "new\r\n===>\r\n";
  for (std::uint64_t some = 5; some < record_and_marker.size(); ++some) {
    const StoreFiles files;
    CReportFileBase store;
    ASSERT_TRUE(store.Open(files.Path(), 3));
    ASSERT_TRUE(store.writeLine("a"));
    const std::string data_before = files.DataBytes();
    const FullDisk fault(1, some, 1);
    EXPECT_TRUE(store.writeLine("new"));
    EXPECT_EQ(fault.Calls(), 4);
    EXPECT_EQ(files.Header(), (IndexHeader{8, 8, 2, 3, 2, 0}));
    EXPECT_EQ(files.DataBytes(), Overlaid(data_before, 3, record_and_marker.substr(0, some)));
    EXPECT_THAT(ReadAll(files), ElementsAre("a\r\n", "new\r\n"));
  }
}

// Long records are written in two parts. The write may stop in either part or between them.
TEST_F(ReportFileBaseFault, LongRecordsCutShortAreHandledLikeShortOnes) {
  const std::string record(2000, 'r');
  const std::string record_and_marker = record + "\r\n===>\r\n";
  for (const std::size_t some : {std::size_t{1}, record.size() - 1, record.size(), record.size() + 1, record.size() + 2,
                                 record.size() + 3, record_and_marker.size() - 1}) {
    for (const int more_failing : {0, 1}) {
      const StoreFiles files;
      CReportFileBase store;
      ASSERT_TRUE(store.Open(files.Path(), 3));
      const bool is_good = more_failing == 0 || some >= record.size() + 2;
      const FullDisk fault(1, some, more_failing);
      EXPECT_EQ(store.writeLine(record.c_str()), is_good) << some;
      EXPECT_EQ(files.DataBytes(), more_failing == 0 ? record_and_marker : record_and_marker.substr(0, some));
      EXPECT_EQ(store.header().highestIndex, is_good ? 1U : 0U);
    }
  }
}

TEST_F(ReportFileBaseFault, RecordsAroundTheLimitOfAShortWriteAreStoredUnchanged) {
  const StoreFiles files;
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files.Path(), 100));
  std::string expected;
  for (std::size_t bytes = 500; bytes < 516; ++bytes) {
    const std::string record(bytes, static_cast<char>('a' + bytes % 26));
    ASSERT_TRUE(store.writeLine(record.c_str()));
    expected += record + "\r\n";
  }
  EXPECT_EQ(files.DataBytes(), expected + "===>\r\n");
}

TEST_F(ReportFileBaseFault, SlotThatCannotBeWrittenLeavesTheHeaderUnchanged) {
  {
    const FailingCall fault({.call = FileCall::kAnyWriteAt, .nth = 2, .error = EIO});
    EXPECT_FALSE(store_.writeLine("new"));
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(fault.Calls(), 2);
  }
  EXPECT_EQ(store_.header(), before_);
  EXPECT_EQ(files_.Header(), before_);
  EXPECT_THAT(files_.Slots(), ElementsAre(9, 3, 6));
  EXPECT_EQ(files_.DataBytes(), "a\r\nb\r\nc\r\nd\r\nnew\r\n===>\r\n");
  EXPECT_TRUE(store_.writeLine("e"));
  EXPECT_THAT(ReadAll(files_), ElementsAre("c\r\n", "d\r\n", "e\r\n"));
}

TEST_F(ReportFileBaseFault, HeaderThatCannotBeWrittenDoesNotChangeTheResult) {
  {
    const FailingCall fault({.call = FileCall::kAnyWriteAt, .nth = 3, .error = EIO});
    EXPECT_TRUE(store_.writeLine("e"));
  }
  EXPECT_EQ(store_.header(), (IndexHeader{15, 15, 5, 3, 3, 2}));
  EXPECT_EQ(files_.Header(), before_);
  EXPECT_THAT(files_.Slots(), ElementsAre(9, 12, 6));
  EXPECT_TRUE(store_.writeLine("f"));
  EXPECT_EQ(files_.Header(), (IndexHeader{0, 18, 6, 3, 3, 0}));
  EXPECT_THAT(ReadAll(files_), ElementsAre("d\r\n", "e\r\n", "f\r\n"));
}

TEST_F(ReportFileBaseFault, WriteOfZeroBytesIsAFailureNotALoop) {
  const FailingCall fault({.call = FileCall::kAnyWriteAt, .bytes = 0});
  EXPECT_FALSE(store_.writeLine("new"));
  EXPECT_EQ(store_.header(), before_);
}

TEST_F(ReportFileBaseFault, InterruptedAndShortWritesAreContinued) {
  for (int nth = 1; nth <= 5; ++nth) {
    for (std::uint64_t some = 0; some <= 9; ++some) {
      const StoreFiles files;
      CReportFileBase store;
      ASSERT_TRUE(store.Open(files.Path(), 3));
      const int error = some == 0 ? EINTR : 0;
      const FailingCall fault({.call = FileCall::kAnyWriteAt, .nth = nth, .error = error, .bytes = some});
      ASSERT_TRUE(store.writeLine("one"));
      ASSERT_TRUE(store.writeLine("two"));
      ASSERT_EQ(files.DataBytes(), "one\r\ntwo\r\n===>\r\n");
      ASSERT_THAT(files.Slots(), ElementsAre(0, 5));
      ASSERT_EQ(files.Header(), (IndexHeader{10, 10, 2, 3, 2, 0}));
    }
  }
}

TEST_F(ReportFileBaseFault, IndexOperationsReportWhatCouldNotBeWrittenWhole) {
  for (std::uint64_t some = 1; some < 4; ++some) {
    const FullDisk fault(1, some);
    EXPECT_FALSE(store_.setPositionInIndexFile(0, 9));
  }
  const FullDisk fault(1, 23);
  EXPECT_EQ(store_.writePositionsToFile(), -1);
}

TEST_F(ReportFileBaseFault, IndexThatCannotBeReadLeavesTheFieldsUnchanged) {
  const FailingCall fault({.call = FileCall::kReadAt, .times = kAlways, .error = EIO});
  EXPECT_EQ(store_.readPositions(), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(store_.header(), before_);
  EXPECT_EQ(store_.getPositionFromIndexFile(1), 0U);
  std::string text = "unchanged";
  EXPECT_FALSE(store_.readLine(text, 1));
  EXPECT_EQ(text, "unchanged");
}

// Uses a real limit: a child process whose files may not grow beyond `limit` appends six records. Returns one bit for
// each append; it is 1 if the append returned true.
int AppendUnderLimit(const StoreFiles& files, rlim_t limit) {
  if (!LimitFileSize(limit)) return 0xFF;
  CReportFileBase writer;
  if (!writer.Open(files.Path(), 10)) return 0xFF;
  int acknowledged = 0;
  for (int i = 0; i < 6; ++i) {
    const std::string text = "record " + std::to_string(i);
    if (writer.writeLine(text.c_str())) acknowledged |= 1 << i;
  }
  return acknowledged;
}

TEST_F(ReportFileBaseFault, WriterAtAFileSizeLimitStoresExactlyWhatItAcknowledges) {
  int partly = 0;
  for (rlim_t limit = 0; limit <= 80; ++limit) {
    const StoreFiles files;
    const int acknowledged = StatusOfChild([&] { return AppendUnderLimit(files, limit); });
    ASSERT_LE(acknowledged, 0x3F);
    std::vector<std::string> expected;
    for (int i = 0; i < 6; ++i) {
      if ((acknowledged >> i) & 1) expected.push_back("record " + std::to_string(i) + "\r\n");
    }
    EXPECT_EQ(ReadAll(files), expected) << "limit " << limit;
    if (acknowledged != 0 && acknowledged != 0x3F) ++partly;
  }
  EXPECT_GT(partly, 10);
}

// Toggles every bit of a small index file: every read must end soon and do no harm.
TEST_F(ReportFileBaseFault, EveryFlippedBitOfAnIndexFileIsReadWithoutHarm) {
  store_.Close();
  const std::string index = files_.IndexBytes();
  for (std::size_t bit = 0; bit < index.size() * 8; ++bit) {
    SCOPED_TRACE("bit " + std::to_string(bit));
    std::string damaged = index;
    damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << (bit % 8)));
    WriteFile(files_.IndexPath(), damaged);
    ReadEverythingThatEnds();
    AppendAndReadBack();
    WriteFile(files_.DataPath(), data_before_);
  }
}

// A writer in its own process that appends numbered records of one length and acknowledges each through a pipe.
class ForkedWriter {
 public:
  explicit ForkedWriter(const StoreFiles& files, std::uint32_t slots) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    child_ = fork();
    if (child_ == 0) {
      close(ends[0]);
      Write(files, slots, ends[1]);
    }
    acknowledgements_ = ends[0];
    close(ends[1]);
  }
  ~ForkedWriter() { close(acknowledgements_); }
  ForkedWriter(const ForkedWriter&) = delete;
  ForkedWriter& operator=(const ForkedWriter&) = delete;

  static std::string Text(std::uint32_t number) {
    const std::string digits = std::to_string(number);
    return "record " + std::string(8 - digits.size(), '0') + digits;
  }

  // Waits for the next acknowledgement; false at the end.
  bool NextAcknowledged() {
    std::uint32_t number = 0;
    if (read(acknowledgements_, &number, sizeof number) != sizeof number) return false;
    newest_ = number;
    return true;
  }

  // Kills the writer at any point, and reads the acknowledgements that it has sent.
  void Kill() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
    while (NextAcknowledged()) {
    }
  }

  std::uint32_t Newest() const { return newest_; }

 private:
  [[noreturn]] static void Write(const StoreFiles& files, std::uint32_t slots, int acknowledgements) {
    CReportFileBase writer;
    if (!writer.Open(files.Path(), slots)) _exit(1);
    for (std::uint32_t number = 1;; ++number) {
      if (!writer.writeLine(Text(number).c_str())) _exit(2);
      if (write(acknowledgements, &number, sizeof number) != sizeof number) _exit(3);
    }
  }

  pid_t child_ = -1;
  int acknowledgements_ = -1;
  std::uint32_t newest_ = 0;
};

class ReportFileBaseKilledWriter : public testing::Test {
 protected:
  static constexpr std::uint32_t kSlots = 8;

  // While the writer runs, it may replace a record during the read, even by the end marker. But every read must end,
  // and its text must not be longer than a record.
  static void ExpectReadable(const StoreFiles& files) {
    CReportFileBase reader;
    ASSERT_TRUE(reader.OpenRead(files.Path()));
    for (const std::string& record : ReadAll(reader)) {
      ASSERT_FALSE(record.empty());
      EXPECT_TRUE(record.ends_with("\r\n") || record.ends_with("\xFF")) << record;
      EXPECT_LE(record.size(), ForkedWriter::Text(1).size() + 2);
    }
  }

  // If the writer is killed between slot and header, it has already replaced the oldest record of the ring. All newer
  // records must be there, in order.
  static void ExpectAcknowledgedRecords(const StoreFiles& files, std::uint32_t newest) {
    const std::uint32_t oldest = newest + 1 > kSlots ? newest + 2 - kSlots : 1;
    std::vector<std::string> expected;
    for (std::uint32_t number = oldest; number <= newest; ++number) {
      expected.push_back(ForkedWriter::Text(number) + "\r\n");
    }
    std::vector<std::string> found = ReadAll(files);
    std::erase_if(found,
                  [&](const std::string& record) { return !testing::Value(expected, testing::Contains(record)); });
    EXPECT_EQ(found, expected);
  }
};

TEST_F(ReportFileBaseKilledWriter, LosesNoAcknowledgedRecord) {
  std::mt19937_64 random(Seed("KilledWriter"));
  for (int round = 0; round < 100 && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const StoreFiles files;
    ForkedWriter writer(files, kSlots);
    for (std::uint64_t left = random() % 60 + 1; left > 0; --left) {
      ASSERT_TRUE(writer.NextAcknowledged());
      if (left % 8 == 0) ExpectReadable(files);
    }
    for (std::uint64_t turns = random() % 20; turns > 0; --turns) std::this_thread::yield();
    writer.Kill();
    ExpectAcknowledgedRecords(files, writer.Newest());

    CReportFileBase next_writer;
    ASSERT_TRUE(next_writer.Open(files.Path(), kSlots));
    ASSERT_TRUE(next_writer.writeLine("the next one"));
    EXPECT_EQ(ReadAll(files).back(), "the next one\r\n");
  }
}

}  // namespace
}  // namespace qx::test
