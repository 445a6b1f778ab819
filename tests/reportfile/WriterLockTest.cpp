// Reports that another process has open, with and without the lock.
#include "reportfile/tools/WriterLock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "reportfile/tools/WritingProcesses.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using report::WriterLock;

// Another process that has done `action` and waits until the end of the scope.
class OtherProcess {
 public:
  template <typename Action>
  explicit OtherProcess(Action action) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    id_ = fork();
    if (id_ == 0) {
      action();
      if (write(ends[1], "x", 1) != 1) _exit(1);
      for (;;) pause();
    }
    close(ends[1]);
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    close(ends[0]);
  }
  ~OtherProcess() { End(); }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;

  int Id() const { return id_; }
  void End() {
    if (has_ended_) return;
    kill(id_, SIGKILL);
    EXPECT_EQ(waitpid(id_, nullptr, 0), id_);
    has_ended_ = true;
  }

 private:
  pid_t id_ = -1;
  bool has_ended_ = false;
};

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
  const OtherProcess writer([&] { return store.Open(files_.Path(), 3); });
  const WriterLock lock(files_.Base());
  EXPECT_TRUE(lock.IsHeldByAnother());
  EXPECT_EQ(lock.Process(), writer.Id());
}

TEST_F(WriterLockOfAReport, ReaderOfAnotherProcessDoesNotCount) {
  CReportFileBase store;
  const OtherProcess reader([&] { return store.OpenRead(files_.Path()); });
  EXPECT_FALSE(WriterLock(files_.Base()).IsHeldByAnother());
}

// The open files of every process are read only if the lock does not answer.
TEST_F(WriterLockOfAReport, HolderOfTheLockIsFoundWithoutReadingEveryProcess) {
  CReportFileBase store;
  const OtherProcess writer([&] { return store.Open(files_.Path(), 3); });
  if (report::FindLockingProcesses({*report::KeyOf(files_.IndexPath())}).empty()) {
    GTEST_SKIP() << "the list of locks has other device numbers for this file system";
  }
  const FailingCall reads({.call = FileCall::kOpen, .path = "/fd", .nth = kAlways});
  const WriterLock lock(files_.Base());
  EXPECT_EQ(lock.Process(), writer.Id());
  EXPECT_EQ(reads.Calls(), 0);
}

// A process that only inherited the lock: the list of locks still has the one that took it.
TEST_F(WriterLockOfAReport, HolderOfALockWhoseTakerHasEndedIsNamed) {
  CReportFileBase store;
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  OtherProcess taker([&] {
    if (!store.Open(files_.Path(), 3)) _exit(1);
    const pid_t heir = fork();
    if (heir == 0) {
      for (;;) pause();
    }
    (void)!write(ends[1], &heir, sizeof heir);
  });
  pid_t heir = 0;
  ASSERT_EQ(read(ends[0], &heir, sizeof heir), static_cast<ssize_t>(sizeof heir));
  close(ends[0]);
  close(ends[1]);
  taker.End();
  EXPECT_EQ(WriterLock(files_.Base()).Process(), heir);
  kill(heir, SIGKILL);
}

// An agent that does not know the lock.
TEST_F(WriterLockOfAReport, WriterWithoutTheLockIsFoundByItsOpenFile) {
  const OtherProcess writer([&] { return open(files_.DataPath().c_str(), O_RDWR | O_CLOEXEC); });
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
