// Tests reports that another process has open, with and without the lock.
#include "reportfile/tools/WriterLock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "reportfile/tools/WritingProcesses.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using report::WriterLock;

class WriterLockOfAReport : public testing::Test {
 protected:
  void SetUp() override {
    CReportFileBase writer;
    ASSERT_TRUE(writer.Open(files_.Path(), 3));
    ASSERT_TRUE(writer.writeLine("a"));
  }

  StoreFiles files_;
};

TEST_F(WriterLockOfAReport, ReportWithoutAWriterCanBeLocked) {
  const WriterLock lock(files_.Base());
  EXPECT_FALSE(lock.IsHeldByAnother());
  EXPECT_TRUE(WriterLock(files_.Base()).IsHeldByAnother());
  CReportFileBase store;
  EXPECT_TRUE(store.Open(files_.Path(), 3));
}

TEST_F(WriterLockOfAReport, MissingReportIsFree) {
  EXPECT_FALSE(WriterLock(files_.Base() + "missing").IsHeldByAnother());
}

TEST_F(WriterLockOfAReport, WriterOfAnotherProcessIsNamed) {
  CReportFileBase store;
  const WaitingChild writer([&] { return store.Open(files_.Path(), 3); });
  const WriterLock lock(files_.Base());
  EXPECT_TRUE(lock.IsHeldByAnother());
  EXPECT_EQ(lock.Process(), writer.Id());
}

TEST_F(WriterLockOfAReport, ReaderOfAnotherProcessDoesNotCount) {
  CReportFileBase store;
  const WaitingChild reader([&] { return store.OpenRead(files_.Path()); });
  EXPECT_FALSE(WriterLock(files_.Base()).IsHeldByAnother());
}

// If the lock shows its holder, the open files of the processes are not read.
TEST_F(WriterLockOfAReport, HolderOfTheLockIsFoundWithoutReadingEveryProcess) {
  CReportFileBase store;
  const WaitingChild writer([&] { return store.Open(files_.Path(), 3); });
  if (report::FindLockingProcesses({*report::KeyOf(files_.IndexPath())}).empty()) {
    GTEST_SKIP() << "the list of locks has other device numbers for this file system";
  }
  const FailingCall reads({.call = FileCall::kOpen, .path = "/fd", .nth = kAlways});
  const WriterLock lock(files_.Base());
  EXPECT_EQ(lock.Process(), writer.Id());
  EXPECT_EQ(reads.Calls(), 0);
}

// A process has inherited the lock. The list of locks still names the process that took it.
TEST_F(WriterLockOfAReport, HolderOfALockWhoseTakerHasEndedIsNamed) {
  CReportFileBase store;
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  WaitingChild taker([&] {
    if (!store.Open(files_.Path(), 3)) return false;
    const pid_t heir = fork();
    if (heir == 0) {
      for (;;) pause();
    }
    return write(ends[1], &heir, sizeof heir) == static_cast<ssize_t>(sizeof heir);
  });
  pid_t heir = 0;
  ASSERT_EQ(read(ends[0], &heir, sizeof heir), static_cast<ssize_t>(sizeof heir));
  close(ends[0]);
  close(ends[1]);
  taker.End();
  EXPECT_EQ(WriterLock(files_.Base()).Process(), heir);
  kill(heir, SIGKILL);
}

// An agent that does not take the lock is found by its open file.
TEST_F(WriterLockOfAReport, WriterWithoutTheLockIsFoundByItsOpenFile) {
  const WaitingChild writer([&] { return open(files_.DataPath().c_str(), O_RDWR | O_CLOEXEC) >= 0; });
  const WriterLock lock(files_.Base());
  EXPECT_TRUE(lock.IsHeldByAnother());
  EXPECT_EQ(lock.Process(), writer.Id());
}

TEST_F(WriterLockOfAReport, WriterOfThisProcessIsFoundByItsLock) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files_.Path(), 3));
  const WriterLock lock(files_.Base());
  EXPECT_TRUE(lock.IsHeldByAnother());
  EXPECT_EQ(lock.Process(), 0);
}

}  // namespace
}  // namespace qx::test
