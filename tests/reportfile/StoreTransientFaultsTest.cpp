// Tests calls that fail once, or for a while: an existing store must never be treated as missing, and bytes that could
// not be read must never be invented.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/File.h"
#include "reportfile/ReportFileBase.h"
#include "tests/reportfile/StoreFiles.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using report::IndexHeader;
using testing::ElementsAre;

class StoreTransientFaults : public testing::Test {
 protected:
  void SetUp() override {
    CReportFileBase writer;
    ASSERT_TRUE(writer.Open(files_.Path(), 3));
    for (const char* text : {"a", "b", "c", "d"}) ASSERT_TRUE(writer.writeLine(text));
    index_ = files_.IndexBytes();
    data_ = files_.DataBytes();
  }

  void ExpectUntouched() const {
    EXPECT_EQ(files_.IndexBytes(), index_);
    EXPECT_EQ(files_.DataBytes(), data_);
  }
  // Opens a new object for writing; returns the error number, or 0.
  int ErrorOfOpen() const {
    CReportFileBase store;
    const std::size_t before = OpenDescriptors();
    errno = 0;
    if (store.Open(files_.Path(), 7)) return 0;
    const int error = errno;
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_FALSE(store.writeLine("lost"));
    return error;
  }

  StoreFiles files_;
  std::string index_;
  std::string data_;
};

TEST_F(StoreTransientFaults, OpenThatFailsOnceOrTwiceKeepsAllRecords) {
  for (const char* const file : {"r1.ind", "r1.dat"}) {
    for (const int error : {EMFILE, ENFILE, ENOMEM}) {
      for (const int times : {1, 2}) {
        const FailingCall fault({.call = FileCall::kOpen, .path = file, .times = times, .error = error});
        EXPECT_EQ(ErrorOfOpen(), 0);
        EXPECT_EQ(fault.Calls(), times + 1);
        ExpectUntouched();
      }
      const FailingCall fault({.call = FileCall::kOpen, .path = file, .times = 2, .error = error});
      EXPECT_THAT(ReadAll(files_), ElementsAre("b\r\n", "c\r\n", "d\r\n"));
    }
  }
}

TEST_F(StoreTransientFaults, OpenThatFailsThreeTimesIsFalseAndChangesNothing) {
  for (const char* const file : {"r1.ind", "r1.dat"}) {
    const FailingCall fault({.call = FileCall::kOpen, .path = file, .times = kAlways, .error = ENFILE});
    EXPECT_EQ(ErrorOfOpen(), ENFILE);
    EXPECT_EQ(fault.Calls(), 3);
    ExpectUntouched();
    CReportFileBase reader;
    EXPECT_FALSE(reader.OpenRead(files_.Path()));
    EXPECT_EQ(errno, ENFILE);
    EXPECT_EQ(fault.Calls(), 6);
  }
}

TEST_F(StoreTransientFaults, OtherErrorsOfAnExistingFileAreNotRetried) {
  for (const char* const file : {"r1.ind", "r1.dat"}) {
    for (const int error : {EACCES, EIO, EROFS, ELOOP, ENOTDIR}) {
      const FailingCall fault({.call = FileCall::kOpen, .path = file, .times = kAlways, .error = error});
      EXPECT_EQ(ErrorOfOpen(), error);
      ExpectUntouched();
    }
  }
}

TEST_F(StoreTransientFaults, DirectoryInPlaceOfOneFileLeavesTheOtherUnchanged) {
  ASSERT_EQ(unlink(files_.DataPath().c_str()), 0);
  ASSERT_EQ(mkdir(files_.DataPath().c_str(), 0755), 0);
  EXPECT_EQ(ErrorOfOpen(), EINVAL);
  EXPECT_EQ(files_.IndexBytes(), index_);
}

// The missing file cannot be created, so the other one keeps its content.
TEST_F(StoreTransientFaults, NothingIsEmptiedBeforeTheMissingFileIsCreated) {
  ASSERT_EQ(unlink(files_.DataPath().c_str()), 0);
  {
    const FailingCall fault({.call = FileCall::kOpen, .path = "r1.dat", .nth = 2, .times = kAlways, .error = ENOSPC});
    EXPECT_EQ(ErrorOfOpen(), ENOSPC);
    EXPECT_EQ(files_.IndexBytes(), index_);
  }
  const FailingCall fault({.call = FileCall::kOpen, .path = "r1.dat", .nth = 2, .times = 2, .error = ENFILE});
  EXPECT_EQ(ErrorOfOpen(), 0);  // created by the third try
  EXPECT_EQ(files_.IndexBytes(), "");
}

TEST_F(StoreTransientFaults, FileThatCannotBeEmptiedMakesOpenFalse) {
  ASSERT_EQ(unlink(files_.IndexPath().c_str()), 0);
  for (const int nth : {1, 2}) {
    const FailingCall fault({.call = FileCall::kTruncate, .nth = nth, .error = EIO});
    EXPECT_EQ(ErrorOfOpen(), nth == 1 ? EIO : 0);  // the index file is there the second time
    EXPECT_EQ(files_.DataBytes(), data_);
    EXPECT_EQ(fault.HasFailed(), nth == 1);
  }
}

TEST_F(StoreTransientFaults, OpenThatFailsKeepsTheHeaderInMemory) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files_.Path(), 3));
  const IndexHeader before = store.header();
  const FailingCall fault({.call = FileCall::kOpen, .path = "r1.dat", .error = EIO});
  EXPECT_FALSE(store.Open(files_.Path(), 7));
  EXPECT_EQ(store.header(), before);
}

TEST_F(StoreTransientFaults, HeaderThatCannotBeReadMakesOpenFalse) {
  {
    const FailingCall fault({.call = FileCall::kReadAt, .error = EIO});
    EXPECT_EQ(ErrorOfOpen(), EIO);
  }
  ExpectUntouched();
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files_.Path(), 7));
  ASSERT_TRUE(store.writeLine("e"));
  EXPECT_THAT(ReadAll(files_), ElementsAre("c\r\n", "d\r\n", "e\r\n"));
}

TEST_F(StoreTransientFaults, HeaderThatCannotBeReadMakesOpenReadFalseAndClosesBoth) {
  const std::size_t before = OpenDescriptors();
  CReportFileBase reader;
  const FailingCall fault({.call = FileCall::kReadAt, .error = EIO});
  EXPECT_FALSE(reader.OpenRead(files_.Path()));
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(OpenDescriptors(), before);
  ASSERT_TRUE(reader.OpenRead(files_.Path()));
  EXPECT_THAT(ReadAll(reader), ElementsAre("b\r\n", "c\r\n", "d\r\n"));
}

TEST_F(StoreTransientFaults, SlotOrTextThatCannotBeReadIsFalseAndReadAgain) {
  CReportFileBase reader;
  ASSERT_TRUE(reader.OpenRead(files_.Path()));
  std::string text = "unchanged";
  for (const int nth : {1, 2, 4}) {  // the slot, the text, the slot once more
    const FailingCall fault({.call = FileCall::kReadAt, .nth = nth, .error = EIO});
    EXPECT_FALSE(reader.readLine(text, 1));
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(text, "unchanged");
  }
  EXPECT_TRUE(reader.readLine(text, 1));
  EXPECT_EQ(text, "b\r\n");
}

// The text of a long record is read in several windows.
TEST_F(StoreTransientFaults, LongTextWithAFailedReadIsNotReturnedInPart) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files_.Path(), 3));
  const std::string record(10000, 'r');
  ASSERT_TRUE(store.writeLine(record.c_str()));
  std::string text = "unchanged";
  for (const int nth : {2, 3, 5}) {  // two windows, and the slot once more
    const FailingCall fault({.call = FileCall::kReadAt, .nth = nth, .error = EIO});
    EXPECT_FALSE(store.readLine(text, 1));
    EXPECT_EQ(text, "unchanged");
  }
  EXPECT_TRUE(store.readLine(text, 1));
  EXPECT_EQ(text, record + "\r\n");
}

TEST_F(StoreTransientFaults, FirstRecordIsTwoWritesAndLaterOnesAreThree) {
  const StoreFiles files;
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files.Path(), 3));
  const CountedCalls counted(FileCall::kAnyWriteAt);
  ASSERT_TRUE(store.writeLine("a"));
  EXPECT_EQ(counted.Calls(), 2);
  EXPECT_EQ(files.Header(), (IndexHeader{3, 3, 1, 3, 1, 0}));
  EXPECT_THAT(files.Slots(), ElementsAre(0));
  ASSERT_TRUE(store.writeLine("b"));
  EXPECT_EQ(counted.Calls(), 5);
}

TEST_F(StoreTransientFaults, FirstSlotThatIsCutShortIsRemoved) {
  for (std::uint64_t some = 1; some < 28; ++some) {
    const StoreFiles files;
    CReportFileBase store;
    ASSERT_TRUE(store.Open(files.Path(), 3));
    const IndexHeader before = store.header();
    {
      const FullDisk fault(2, some);
      EXPECT_FALSE(store.writeLine("a"));
      EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_EQ(files.IndexBytes(), "");
    EXPECT_EQ(store.header(), before);
    EXPECT_TRUE(store.writeLine("b"));
    EXPECT_THAT(ReadAll(files), ElementsAre("b\r\n"));
  }
}

// If an object that had another store open creates a store, it keeps the header of the other one. The test uses the
// header of a full ring whose oldest slot is 0, and then the header of a ring that is not full.
TEST_F(StoreTransientFaults, QuirkUsedObjectWritesItsFirstSlotByItsOldHeader) {
  const StoreFiles full;
  full.Make(StoreFiles::FullRing(2), {0, 3}, "a\r\nb\r\n===>\r\n");
  const StoreFiles first;
  CReportFileBase store;
  ASSERT_TRUE(store.Open(full.Path(), 2));
  ASSERT_TRUE(store.Open(first.Path(), 2));
  const CountedCalls counted(FileCall::kAnyWriteAt);
  ASSERT_TRUE(store.writeLine("x"));
  EXPECT_EQ(counted.Calls(), 2);
  EXPECT_EQ(first.IndexBytes().size(), 28U);
  const StoreFiles second;
  ASSERT_TRUE(store.Open(second.Path(), 2));
  ASSERT_TRUE(store.writeLine("y"));
  EXPECT_EQ(counted.Calls(), 5);
  EXPECT_EQ(second.IndexBytes().size(), 32U);
}

// Whether another open file holds the advisory lock of the index file.
bool IsLocked(const StoreFiles& files) {
  const qx::file::Descriptor other = qx::file::Open(files.IndexPath().c_str(), O_RDONLY);
  return qx::file::TryLock(other.Number()) == EWOULDBLOCK;
}

TEST_F(StoreTransientFaults, WriterHoldsTheLockUntilItCloses) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files_.Path(), 3));
  EXPECT_TRUE(IsLocked(files_));
  store.Close();
  EXPECT_FALSE(IsLocked(files_));
  ASSERT_TRUE(store.OpenRead(files_.Path()));
  EXPECT_FALSE(IsLocked(files_));
}

TEST_F(StoreTransientFaults, WriterOfANewStoreHoldsTheLock) {
  const StoreFiles files;
  CReportFileBase store;
  ASSERT_TRUE(store.Open(files.Path(), 3));
  EXPECT_TRUE(IsLocked(files));
}

TEST_F(StoreTransientFaults, LockThatIsHeldOrFailsDoesNotStopAWriter) {
  CReportFileBase first;
  CReportFileBase second;
  ASSERT_TRUE(first.Open(files_.Path(), 3));
  EXPECT_TRUE(second.Open(files_.Path(), 3));
  const FailingCall fault({.call = FileCall::kLock, .error = ENOLCK});
  EXPECT_TRUE(second.Open(files_.Path(), 3));
  EXPECT_TRUE(fault.HasFailed());
}

}  // namespace
}  // namespace qx::test
