// Limits the work that a refused caller, or a report with billions of records, can cause.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tests/provider/TransferFixture.h"
#include "tests/support/FailingFileCalls.h"

namespace {

using qx::test::CountedCalls;
using qx::test::FileCall;
using qx::test::NoMoreRecords;
using qx::test::Reply;
using qx::test::ServiceThread;
using qx::test::TraceCapture;
using qx::test::WriteFile;

const std::vector<const char*> kNotEnough = {"Other"};
constexpr char kRequest[] = "<ReportData Name=\"big\" />";
static_assert(sizeof kRequest - 1 == 25);

class RefusedTransfer : public qx::test::TransferFixture {
 protected:
  // An index file of `bytes` bytes whose header counts as many slots as possible. Only the header is written.
  void SparseReport(std::int64_t bytes, const std::string& data) const {
    qx::report::IndexHeader header;
    header.maxRecord = header.highestIndex = 0xFFFFFFFF;
    WriteFile(BasePath("big") + ".ind", std::string(reinterpret_cast<const char*>(&header), sizeof header));
    WriteFile(BasePath("big") + ".dat", data);
    ASSERT_EQ(truncate((BasePath("big") + ".ind").c_str(), bytes), 0);
  }

  // The number of reads of a refused call from `start` on. If `start` is not 0, the call continues a transfer.
  static int CallsOfRefused(const std::string& name, int start) {
    ServiceThread refused(kNotEnough);
    if (start > 0) (void)refused.Ask(name, 0);
    const CountedCalls reads(FileCall::kReadAt);
    EXPECT_EQ(refused.Ask(name, start).result, 0);
    return reads.Calls();
  }
};

constexpr std::int64_t kAllSlotsBytes = qx::report::SlotOffset(0xFFFFFFFF);

TEST_F(RefusedTransfer, BillionsOfEmptyRecordsInAHoleAreAnsweredAtOnce) {
  for (const std::int64_t bytes : {kAllSlotsBytes, std::int64_t{24}, std::int64_t{1} << 32}) {
    SparseReport(bytes, std::string("\0x\r\n", 4));
    for (const bool is_refused : {true, false}) {
      ServiceThread thread(is_refused ? kNotEnough : std::vector<const char*>{"AccessPerformanceMgr"});
      const CountedCalls reads(FileCall::kReadAt);
      EXPECT_EQ(thread.GetReports(kRequest), NoMoreRecords());
      EXPECT_LE(reads.Calls(), 40) << bytes;
    }
  }
}

TEST_F(RefusedTransfer, TraceOfEveryRecordEndsAfterHundredThousandEmptyOnes) {
  SparseReport(kAllSlotsBytes, std::string("\0x\r\n", 4));
  ServiceThread thread(kNotEnough);
  const TraceCapture trace(5);
  EXPECT_EQ(thread.GetReports(kRequest), NoMoreRecords());
  std::size_t lines = 0;
  for (const std::string& entry : trace.Entries()) lines += entry.find("read entry #") != std::string::npos;
  EXPECT_LE(lines, 100001U);
}

TEST_F(RefusedTransfer, RefusedCallReadsOneRecordWithText) {
  Append("r1", 20000, std::vector<std::string>(20000, std::string(98, 'x')));
  ServiceThread admitted;
  ServiceThread refused(kNotEnough);
  for (const int start : {0, 1, 10000}) {
    const CountedCalls reads(FileCall::kReadAt);
    const Reply reply = refused.Ask("r1", start);
    EXPECT_EQ(reply.result, 0);
    EXPECT_FALSE(reply.is_well_formed);
    EXPECT_LT(reply.document.size(), 500U);
    EXPECT_NE(reply.document.find("NextIndex=\"" + std::to_string(start + 1) + '"'), std::string::npos);
    EXPECT_LE(reads.Calls(), 10);
    EXPECT_EQ(admitted.Ask("r1", start).result, 0);
  }
  EXPECT_EQ(refused.Data()->state_word, admitted.Data()->state_word);
  EXPECT_EQ(refused.Data()->data_file_size, admitted.Data()->data_file_size);
  EXPECT_EQ(refused.Ask("r1", 20000), NoMoreRecords());
}

// A refused call of a large report needs as many reads as a call that returns the only record of a report. Both files
// are longer than the bytes that are read, so no read ends early.
TEST_F(RefusedTransfer, RefusedCallReadsNoMoreOfALargeReportThanOfOneRecord) {
  for (const std::size_t bytes : {std::size_t{98}, std::size_t{5000}, std::size_t{70000}}) {
    for (const int start : {0, 1}) {
      const std::string name = std::to_string(bytes) + "-" + std::to_string(start);
      const std::vector<std::string> records(static_cast<std::size_t>(start) + 1, std::string(bytes, 'x'));
      Append("small" + name, 1000, records);
      Append("large" + name, 1000, std::vector<std::string>(40, records.front()));
      for (const char* const report : {"small", "large"}) {
        std::ofstream(BasePath(report + name) + ".ind", std::ios::app) << std::string(1U << 16, '\0');
        std::ofstream(BasePath(report + name) + ".dat", std::ios::app) << std::string(1U << 18, 'y');
      }
      const int of_one = CallsOfRefused("small" + name, start);
      EXPECT_EQ(CallsOfRefused("large" + name, start), of_one) << name;
    }
  }
}

TEST_F(RefusedTransfer, RecordsWithoutTextAreSearchedForText) {
  Append("r1", 30000, std::vector<std::string>(30000, "x"));
  std::string data = qx::test::ReadFile(BasePath("r1") + ".dat");
  for (std::size_t i = 0; i < 25000; ++i) data[3 * i] = '\0';
  WriteFile(BasePath("r1") + ".dat", data);
  ServiceThread refused(kNotEnough);
  EXPECT_EQ(refused.Ask("r1", 0, 25000), NoMoreRecords());
  EXPECT_EQ(refused.Ask("r1", 0, 25001).result, 0);
  EXPECT_EQ(refused.Ask("r1", 0).result, 0);
}

// With a trace, a refused call continues to read. Its result and its state must be the same as without a trace.
TEST_F(RefusedTransfer, StoppingEarlyChangesNeitherResultNorState) {
  std::mt19937_64 random(qx::test::Seed("RefusedTransfer"));
  for (int round = 0; round < 60; ++round) {
    std::vector<std::string> records(random() % 12);
    for (std::string& record : records) record = std::string(random() % 3 == 0 ? 0x80000 : random() % 5, 'x');
    Append("r1", 1 + static_cast<unsigned>(random() % 8), records);
    std::string data = qx::test::ReadFile(BasePath("r1") + ".dat");
    for (int i = 0; i < 4 && !data.empty(); ++i) data[random() % std::min<std::size_t>(data.size(), 40)] = '\0';
    WriteFile(BasePath("r1") + ".dat", data);

    ServiceThread early(kNotEnough);
    ServiceThread whole(kNotEnough);
    for (int call = 0; call < 4; ++call) {
      const int start = static_cast<int>(random() % 10) - 1;
      const int limit = static_cast<int>(random() % 5) - 1;
      const Reply reply = early.Ask("r1", start, limit);
      const TraceCapture trace(1);
      const Reply expected = whole.Ask("r1", start, limit);
      EXPECT_EQ(reply.result, expected.result);
      EXPECT_EQ(reply.is_well_formed, expected.is_well_formed);
      EXPECT_EQ(early.Data()->state_word, whole.Data()->state_word);
      EXPECT_EQ(early.Data()->oldest_index, whole.Data()->oldest_index);
      EXPECT_EQ(early.Data()->highest_index, whole.Data()->highest_index);
    }
    if (HasFailure()) FAIL() << "round " << round;
    (void)unlink((BasePath("r1") + ".ind").c_str());
  }
}

TEST_F(RefusedTransfer, ControlBytesOfAReportNameAreShownAsDots) {
  Append("a\nb\x1B[31m\x7F", 10, {"x"});
  for (const std::string name : {"a&#10;b&#27;[31m&#127;", "no&#10;b&#27;[31m&#127;"}) {
    const std::string shown = (name[0] == 'a' ? "a" : "no") + std::string(".b.[31m.");
    const TraceCapture trace(6);
    (void)ServiceThread().Ask(name, 0);
    const std::string text = trace.Text();
    EXPECT_EQ(text.find('\x1B'), std::string::npos);
    EXPECT_NE(text.find("report name: \"" + shown + "\""), std::string::npos);
    EXPECT_NE(text.find("report file path: " + directory_.Path() + "/" + shown), std::string::npos);
    EXPECT_NE(text.find((name[0] == 'a' ? "Get report file \"" : "for report \"") + shown + "\""), std::string::npos);
  }
}

}  // namespace
