// Tests one store object that many threads use at once, and many objects of the same files.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "tests/reportfile/StoreFiles.h"

namespace qx::test {
namespace {

constexpr int kWriters = 4;
constexpr int kReaders = 4;
constexpr int kRecordsEach = 400;

// "writer 2 record 00017": all records have the same length, so a restarted data file never cuts an indexed record.
std::string Text(int writer, int number) {
  std::string digits = std::to_string(number);
  return "writer " + std::to_string(writer) + " record " + std::string(5 - digits.size(), '0') + digits;
}

bool IsWholeRecord(const std::string& text) {
  return text.size() == Text(0, 0).size() + 2 && text.starts_with("writer ") && text.ends_with("\r\n");
}

// Every writer's own records must be in the order in which it wrote them.
void ExpectEachWritersOrder(const std::vector<std::string>& records) {
  std::map<std::string, std::string> newest;
  for (const std::string& record : records) {
    ASSERT_TRUE(IsWholeRecord(record)) << record;
    std::string& last = newest[record.substr(0, 8)];
    EXPECT_LT(last, record);
    last = record;
  }
}

class ReportFileBaseThreads : public testing::Test {
 protected:
  void StartWriters() {
    for (int writer = 0; writer < kWriters; ++writer) {
      threads_.emplace_back([this, writer] {
        for (int i = 0; i < kRecordsEach; ++i) failures_ += store_.writeLine(Text(writer, i).c_str()) ? 0 : 1;
        ++finished_;
      });
    }
  }

  template <typename Work>
  void StartReaders(Work work) {
    for (int reader = 0; reader < kReaders; ++reader) {
      threads_.emplace_back([this, reader, work] {
        do work(reader);
        while (finished_ < kWriters);
      });
    }
  }

  void Join() {
    for (std::thread& thread : threads_) thread.join();
    EXPECT_EQ(failures_, 0);
  }

  StoreFiles files_;
  CReportFileBase store_;
  std::vector<std::thread> threads_;
  std::atomic<int> failures_{0};
  std::atomic<int> finished_{0};
};

TEST_F(ReportFileBaseThreads, AppendsAndReadsOfOneObjectNeitherLoseNorTearRecords) {
  constexpr std::uint32_t kSlots = 100;
  ASSERT_TRUE(store_.Open(files_.Path(), kSlots));
  StartWriters();
  StartReaders([this](int reader) {
    std::string text;
    const auto slot = static_cast<std::uint32_t>(reader) * 17 % kSlots;
    if (store_.readLine(text, slot) && !IsWholeRecord(text)) ++failures_;
  });
  Join();
  EXPECT_EQ(store_.header().elementCount, static_cast<std::uint32_t>(kWriters * kRecordsEach));
  EXPECT_EQ(store_.header().highestIndex, kSlots);
  ExpectEachWritersOrder(ReadAll(store_));
}

TEST_F(ReportFileBaseThreads, RunsAreTakenFromAnObjectThatIsBeingWritten) {
  ASSERT_TRUE(store_.Open(files_.Path(), kWriters * kRecordsEach));
  StartWriters();
  StartReaders([this](int) {
    report::RecordReader reader(store_);
    std::string taken;
    const report::TakenRecords result = reader.Take(0, {100000, 100000}, &taken);
    if (taken.size() != result.count * (Text(0, 0).size() + 2)) ++failures_;
  });
  Join();
  ExpectEachWritersOrder(ReadAll(files_));
  EXPECT_EQ(ReadAll(files_).size(), std::size_t{kWriters * kRecordsEach});
}

TEST_F(ReportFileBaseThreads, EveryThreadMayReadTheFilesWithItsOwnObject) {
  ASSERT_TRUE(store_.Open(files_.Path(), kWriters * kRecordsEach));
  StartWriters();
  StartReaders([this](int) {
    CReportFileBase own;
    if (!own.OpenRead(files_.Path())) ++failures_;
    for (const std::string& record : ReadAll(own)) failures_ += IsWholeRecord(record) ? 0 : 1;
  });
  Join();
}

// A thread that is cancelled inside an operation unwinds its frame, which releases the lock.
TEST_F(ReportFileBaseThreads, CancelledWriterDoesNotKeepTheLock) {
#ifdef QX_ADDRESS_SANITIZER
  GTEST_SKIP() << "the address sanitizer's runtime cannot unwind a cancelled thread";
#endif
  ASSERT_TRUE(store_.Open(files_.Path(), 10));
  std::thread writer([this] {
    for (;;) {
      ++finished_;
      if (!store_.writeLine("again and again")) return;
    }
  });
  while (finished_ < 10) std::this_thread::yield();
  ASSERT_EQ(pthread_cancel(writer.native_handle()), 0);
  writer.join();
  EXPECT_TRUE(store_.writeLine("free"));
}

}  // namespace
}  // namespace qx::test
