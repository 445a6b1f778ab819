// Tests transfers whose files cannot be read, or change while they are read.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/provider/TransferFixture.h"
#include "tests/support/FailingFileCalls.h"

namespace {

using qx::provider::TransferOptions;
using qx::test::BeforeEachRead;
using qx::test::FailingCall;
using qx::test::FileCall;
using qx::test::NoMoreRecords;
using qx::test::NotReadable;
using qx::test::Records;
using qx::test::Reply;
using qx::test::TraceCapture;
using qx::test::UnreadableByte;

constexpr int kInputOutputError = 5;

class ReportTransferFault : public qx::test::TransferInRace {
 protected:
  static constexpr TransferOptions::Path kPaths[] = {TransferOptions::Path::kSingly, TransferOptions::Path::kInRuns,
                                                     TransferOptions::Path::kIntoReply};

  Reply Ask(int start, TransferOptions::Path path, CThreadData& data) {
    return TransferInRace::Ask([] {}, start, path, data);
  }
};

class ReportTransferRace : public ReportTransferFault {};

// Records are so long that an unreadable offset of the data file is beyond the end of the index file.
std::string LineOf(char letter) { return std::string(398, letter); }
std::string Record(char letter) { return LineOf(letter) + "\r\n"; }
constexpr off_t kRecordBytes = 400;

TEST_F(ReportTransferFault, TransferEndsBeforeARecordThatCannotBeRead) {
  Append("r1", 10, {LineOf('0'), LineOf('1'), LineOf('2'), LineOf('3'), LineOf('4')});
  for (const TransferOptions::Path path : kPaths) {
    CThreadData data;
    {
      const UnreadableByte bad(3 * kRecordBytes + 2);
      EXPECT_EQ(Ask(0, path, data), Records("r1", 0, 3, Record('0') + Record('1') + Record('2')));
      EXPECT_EQ(Ask(3, path, data), NotReadable("r1", kInputOutputError));
      EXPECT_EQ(Ask(4, path, data), Records("r1", 4, 5, Record('4')));
    }
    EXPECT_EQ(Ask(3, path, data), Records("r1", 3, 5, Record('3') + Record('4')));
    EXPECT_EQ(Ask(5, path, data), NoMoreRecords());
    EXPECT_EQ(data.state_word, 5U);
  }
}

TEST_F(ReportTransferFault, UnreadableRecordIsTracedAsAReportThatCannotBeOpened) {
  Append("r1", 10, {LineOf('0'), LineOf('1')});
  CThreadData data;
  const UnreadableByte bad(kRecordBytes + 100);
  const TraceCapture trace(1);
  EXPECT_EQ(Ask(0, TransferOptions::Path::kByTrace, data), Records("r1", 0, 1, Record('0')));
  EXPECT_EQ(trace.Text(), "");
  EXPECT_EQ(Ask(1, TransferOptions::Path::kByTrace, data), NotReadable("r1", kInputOutputError));
  EXPECT_EQ(trace.Text(), "WCSP_QX GetReports  : ## ERROR! Could not read data file for report \"r1\" (0x00000005)\n");
}

TEST_F(ReportTransferFault, RecordsWithoutTextBeforeAnUnreadableOneAreNoReply) {
  Append("r1", 10, {LineOf('0'), LineOf('1')});
  std::string bytes = qx::test::ReadFile(BasePath("r1") + ".dat");
  bytes[0] = '\0';
  qx::test::WriteFile(BasePath("r1") + ".dat", bytes);
  for (const TransferOptions::Path path : kPaths) {
    CThreadData data;
    const UnreadableByte bad(kRecordBytes + 100);
    EXPECT_EQ(Ask(0, path, data), NotReadable("r1", kInputOutputError));
  }
}

// Each read fails once. Only failed reads of a transfer's first record, which is read singly, change the reply: the
// call can be repeated. Reads of the header are not tested here; they belong to the open.
TEST_F(ReportTransferFault, OneFailedReadLosesNothing) {
  std::string all;
  std::vector<std::string> records = {"pad"};
  for (int i = 0; i < 3000; ++i) {
    records.push_back(std::to_string(i) + std::string(static_cast<std::size_t>(i % 100), i % 1000 == 7 ? '\n' : 'x'));
    all += records.back().substr(0, records.back().find('\n')) + (i % 1000 == 7 ? "\n" : "\r\n");
  }
  Append("r1", 3001, records);
  for (const TransferOptions::Path path : {TransferOptions::Path::kInRuns, TransferOptions::Path::kIntoReply}) {
    for (int nth = 1;; ++nth) {
      bool is_of_header = false;
      const BeforeEachRead hook([&](int call) {
        if (call == nth) is_of_header = hook.Offset() == 0;
      });
      const FailingCall fault({.call = FileCall::kReadAt, .nth = nth, .error = EIO});
      CThreadData data;
      Reply reply = Ask(1, path, data);
      if (!fault.HasFailed()) break;
      if (is_of_header) continue;
      if (nth <= 4 && reply == NotReadable("r1", kInputOutputError)) reply = Ask(1, path, data);
      EXPECT_TRUE(reply == Records("r1", 1, 3001, all)) << "read " << nth << " result " << reply.result;
    }
  }
}

// The writer stores a new record in the slot of the oldest one and overwrites the old text.
TEST_F(ReportTransferRace, RecordThatIsReplacedBeforeAnyReadIsWhole) {
  const std::string kOld(60, 'o');
  const std::string kNew(60, 'n');
  for (const TransferOptions::Path path : kPaths) {
    for (int nth = 1;; ++nth) {
      CReportFileBase writer;
      ASSERT_TRUE(writer.Open(BasePath("r1").c_str(), 2));
      for (const std::string& text : {kOld, kOld, kNew}) ASSERT_TRUE(writer.writeLine(text.c_str()));
      // Slot 0 has the third record. It gets the first one again, which the writer has not replaced yet.
      ASSERT_TRUE(writer.setPositionInIndexFile(0, 0));
      const BeforeEachRead hook([&](int call) {
        if (call != nth) return;
        (void)writer.setPositionInIndexFile(0, 124);
        std::FILE* const data_file = std::fopen((BasePath("r1") + ".dat").c_str(), "r+b");
        (void)std::fwrite("xxxxx", 5, 1, data_file);
        (void)std::fclose(data_file);
      });
      CThreadData data;
      const Reply reply = Ask(0, path, data);
      const std::string both = kOld + "\r\n" + kOld + "\r\n";
      const std::string newest_last = kOld + "\r\n" + kNew + "\r\n";
      EXPECT_TRUE(reply == Records("r1", 0, 2, both) || reply == Records("r1", 0, 2, newest_last))
          << "before read " << nth << ": " << reply;
      writer.Close();
      std::remove((BasePath("r1") + ".ind").c_str());
      if (hook.Reads() < nth) break;
    }
  }
}

}  // namespace
