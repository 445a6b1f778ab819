#include "base/File.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/tools/FileText.h"
#include "tests/support/FailingFileCalls.h"
#include "tests/support/Support.h"

namespace {

using namespace qx::file;  // NOLINT(google-build-using-namespace): the functions under test
using qx::test::CountedCalls;
using qx::test::FailingCall;
using qx::test::FileCall;
using qx::test::ReadFile;
using qx::test::TempDir;
using qx::test::WriteFile;

bool IsOpenNumber(int number) { return fcntl(number, F_GETFD) != -1; }

TEST(Descriptor, ClosesAtTheEndOfTheScopeAndKeepsErrno) {
  int number = -1;
  {
    const Descriptor null = Open("/dev/null", O_RDONLY);
    number = null.Number();
    ASSERT_TRUE(IsOpenNumber(number));
    errno = ENOTTY;
  }
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_FALSE(IsOpenNumber(number));
}

TEST(Descriptor, MoveHandsTheNumberOver) {
  Descriptor first = Open("/dev/null", O_RDONLY);
  Descriptor second = Open("/dev/null", O_RDONLY);
  const int kept = first.Number();
  const int closed = second.Number();
  second = std::move(first);
  EXPECT_EQ(second.Number(), kept);
  EXPECT_FALSE(IsOpenNumber(closed));
  const int released = second.Release();
  EXPECT_FALSE(second.IsOpen());
  EXPECT_EQ(close(released), 0);
}

TEST(Descriptor, CloseReportsTheErrorOnce) {
  Descriptor null = Open("/dev/null", O_RDONLY);
  {
    const FailingCall fault({.call = FileCall::kClose, .error = ENOSPC});
    EXPECT_EQ(null.Close(), ENOSPC);
  }
  EXPECT_EQ(null.Close(), 0);
}

TEST(FileOpen, SetsCloseOnExec) {
  const Descriptor null = Open("/dev/null", O_RDONLY);
  EXPECT_NE(fcntl(null.Number(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(FileOpen, RegularFileRefusesOtherKindsWithoutWaiting) {
  const TempDir dir;
  ASSERT_EQ(mkfifo(dir.File("fifo").c_str(), 0600), 0);
  EXPECT_FALSE(OpenRegular(dir.File("fifo").c_str(), O_RDONLY).IsOpen());
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(OpenRegular(dir.Path().c_str(), O_RDONLY).IsOpen());
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(OpenRegular(dir.File("missing").c_str(), O_RDONLY).IsOpen());
  EXPECT_EQ(errno, ENOENT);
}

TEST(FileOpen, RegularFileNeverTruncates) {
  const TempDir dir;
  WriteFile(dir.File("f"), "abc");
  EXPECT_FALSE(OpenRegular(dir.File("f").c_str(), O_RDWR | O_TRUNC).IsOpen());
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ReadFile(dir.File("f")), "abc");
}

TEST(FileOpen, FailingStatusClosesTheFile) {
  const TempDir dir;
  WriteFile(dir.File("f"), "abc");
  const int next = Open("/dev/null", O_RDONLY).Number();
  const FailingCall fault({.call = FileCall::kStatus, .error = EIO});
  EXPECT_FALSE(OpenRegular(dir.File("f").c_str(), O_RDONLY).IsOpen());
  EXPECT_EQ(errno, EIO);
  EXPECT_FALSE(IsOpenNumber(next));
}

TEST(FileOpen, InterruptedOpenIsRepeated) {
  const FailingCall fault({.call = FileCall::kOpen, .times = 5, .error = EINTR});
  EXPECT_TRUE(Open("/dev/null", O_RDONLY).IsOpen());
  EXPECT_EQ(fault.Calls(), 6);
}

TEST(FileOpen, DirectoryIsOpenedRelativeToADescriptor) {
  const TempDir dir;
  ASSERT_EQ(mkdir(dir.File("sub").c_str(), 0700), 0);
  ASSERT_EQ(symlink("sub", dir.File("link").c_str()), 0);
  const Descriptor parent = OpenDirectory(dir.Path().c_str());
  EXPECT_TRUE(OpenDirectory("sub", 0, parent.Number()).IsOpen());
  EXPECT_TRUE(OpenDirectory("link", 0, parent.Number()).IsOpen());
  EXPECT_FALSE(OpenDirectory("link", O_NOFOLLOW, parent.Number()).IsOpen());
}

TEST(FileWrite, ShortCountsAreContinued) {
  const TempDir dir;
  const Descriptor file = Open(dir.File("f").c_str(), O_RDWR | O_CREAT, 0600);
  const std::string text = "0123456789";
  for (const std::size_t step : {1U, 3U, 9U}) {
    const FailingCall short_write({.call = FileCall::kWriteAt, .times = qx::test::kAlways, .bytes = step});
    EXPECT_EQ(WriteAt(file.Number(), 0, text).bytes, text.size());
    EXPECT_EQ(ReadFile(dir.File("f")), text);
  }
}

TEST(FileWrite, TwoTextsAreOneCall) {
  const TempDir dir;
  const Descriptor file = Open(dir.File("f").c_str(), O_RDWR | O_CREAT, 0600);
  for (const std::size_t size : {2U, 511U, 512U, 5000U}) {
    const std::string first(size, 'a');
    const CountedCalls writes(FileCall::kAnyWriteAt);
    EXPECT_EQ(WriteAt(file.Number(), 0, first, "b").bytes, size + 1);
    EXPECT_EQ(writes.Calls(), 1);
    EXPECT_EQ(ReadFile(dir.File("f")), first + "b");
  }
}

TEST(FileWrite, ShortVectorIsContinuedAcrossBothTexts) {
  const TempDir dir;
  const Descriptor file = Open(dir.File("f").c_str(), O_RDWR | O_CREAT, 0600);
  const std::string first(600, 'a');
  const std::string second(300, 'b');
  for (const std::size_t step : {1U, 599U, 600U, 601U, 899U}) {
    ASSERT_EQ(Truncate(file.Number(), 0), 0);
    const FailingCall short_write({.call = FileCall::kWriteVectorAt, .times = qx::test::kAlways, .bytes = step});
    EXPECT_EQ(WriteAt(file.Number(), 0, first, second).bytes, 900U);
    EXPECT_EQ(ReadFile(dir.File("f")), first + second);
  }
}

TEST(FileWrite, FailureReportsTheBytesBeforeIt) {
  const TempDir dir;
  const Descriptor file = Open(dir.File("f").c_str(), O_RDWR | O_CREAT, 0600);
  const FailingCall short_write({.call = FileCall::kWrite, .bytes = 4});
  const FailingCall full({.call = FileCall::kWrite, .nth = 2, .error = ENOSPC});
  const Progress progress = Write(file.Number(), "0123456789");
  EXPECT_EQ(progress.bytes, 4U);
  EXPECT_EQ(progress.error, ENOSPC);
}

TEST(FileWrite, CallThatTakesNothingIsAnError) {
  const TempDir dir;
  const Descriptor file = Open(dir.File("f").c_str(), O_RDWR | O_CREAT, 0600);
  const FailingCall nothing({.call = FileCall::kWriteAt, .times = qx::test::kAlways, .bytes = 0});
  EXPECT_EQ(WriteAt(file.Number(), 0, "abc").error, EIO);
}

TEST(FileWrite, OnceIsNeverRepeated) {
  const TempDir dir;
  const Descriptor file = Open(dir.File("a").c_str(), O_WRONLY | O_CREAT, 0600);
  const CountedCalls calls(FileCall::kWrite);
  {
    const FailingCall fault({.call = FileCall::kWrite, .error = EINTR});
    EXPECT_EQ(WriteOnce(file.Number(), "abc").error, EINTR);
  }
  for (const std::size_t bytes : {2U, 0U}) {
    const FailingCall fault({.call = FileCall::kWrite, .bytes = bytes});
    const Progress progress = WriteOnce(file.Number(), "abc");
    EXPECT_EQ(progress.bytes, bytes);
    EXPECT_EQ(progress.error, bytes == 0 ? EIO : 0);
  }
  EXPECT_EQ(WriteOnce(file.Number(), "").error, 0);
  EXPECT_EQ(ReadFile(dir.File("a")), "ab");
  EXPECT_EQ(calls.Calls(), 4);
}

TEST(FileRead, SomeMakesOneCallAndIsRepeatedOnlyAfterAnInterruption) {
  const TempDir dir;
  WriteFile(dir.File("f"), "abcdef");
  const Descriptor file = Open(dir.File("f").c_str(), O_RDONLY);
  std::array<char, 16> bytes;
  {
    const FailingCall interrupted({.call = FileCall::kReadAt, .error = EINTR});
    EXPECT_EQ(ReadSomeAt(file.Number(), 4, bytes.data(), bytes.size()).bytes, 2U);
    EXPECT_EQ(interrupted.Calls(), 2);
  }
  {
    const FailingCall short_read({.call = FileCall::kRead, .bytes = 3});
    EXPECT_EQ(ReadSome(file.Number(), bytes.data(), bytes.size()).bytes, 3U);
    EXPECT_EQ(short_read.Calls(), 1);
  }
  const FailingCall fault({.call = FileCall::kRead, .error = EIO});
  EXPECT_EQ(ReadSome(file.Number(), bytes.data(), bytes.size()).error, EIO);
  EXPECT_EQ(ReadSome(file.Number(), bytes.data(), bytes.size()).bytes, 3U);
  EXPECT_EQ(ReadSome(file.Number(), bytes.data(), bytes.size()).bytes, 0U);
}

TEST(FileRead, EndOfFileIsNotAnError) {
  const TempDir dir;
  WriteFile(dir.File("f"), "abc");
  const Descriptor file = OpenRegular(dir.File("f").c_str(), O_RDONLY);
  std::array<char, 8> to{};
  const Progress progress = ReadAt(file.Number(), 1, to.data(), to.size());
  EXPECT_EQ(progress.bytes, 2U);
  EXPECT_FALSE(progress.Failed());
}

TEST(FileRead, ErrorAfterSomeBytesIsReported) {
  const TempDir dir;
  WriteFile(dir.File("f"), "abcdef");
  const Descriptor file = OpenRegular(dir.File("f").c_str(), O_RDONLY);
  const FailingCall short_read({.call = FileCall::kReadAt, .bytes = 2});
  const FailingCall broken({.call = FileCall::kReadAt, .nth = 2, .error = EIO});
  std::array<char, 6> to{};
  const Progress progress = ReadAt(file.Number(), 0, to.data(), to.size());
  EXPECT_EQ(progress.bytes, 2U);
  EXPECT_EQ(progress.error, EIO);
}

TEST(FileRead, WholeFileStopsAtItsLimit) {
  const TempDir dir;
  const std::string text(200000, 'x');
  WriteFile(dir.File("f"), text);
  std::string bytes;
  EXPECT_EQ(ReadWhole(OpenRegular(dir.File("f").c_str(), O_RDONLY).Number(), bytes, text.size()), 0);
  EXPECT_EQ(bytes, text);
  bytes.clear();
  EXPECT_EQ(ReadWhole(OpenRegular(dir.File("f").c_str(), O_RDONLY).Number(), bytes, text.size() - 1), EFBIG);
}

TEST(FileCopy, SomeCopiesFromBothPositionsAndIsRepeatedAfterASignal) {
  const TempDir dir;
  WriteFile(dir.File("from"), "0123456789");
  const Descriptor from = Open(dir.File("from").c_str(), O_RDONLY);
  const Descriptor to = Open(dir.File("to").c_str(), O_WRONLY | O_CREAT, 0600);
  {
    const FailingCall fault({.call = FileCall::kCopyRange, .error = EINTR});
    EXPECT_EQ(CopySome(from.Number(), to.Number(), 4).bytes, 4U);
    EXPECT_EQ(fault.Calls(), 2);
  }
  EXPECT_EQ(CopySome(from.Number(), to.Number(), 100).bytes, 6U);
  EXPECT_EQ(CopySome(from.Number(), to.Number(), 100).bytes, 0U);
  EXPECT_EQ(ReadFile(dir.File("to")), "0123456789");
  const FailingCall fault({.call = FileCall::kCopyRange, .error = EXDEV});
  EXPECT_EQ(CopySome(from.Number(), to.Number(), 100).error, EXDEV);
}

TEST(FileText, IsEmptyForWhatIsNoRegularFile) {
  const TempDir dir;
  WriteFile(dir.File("f"), std::string("a\n\0b", 4));
  EXPECT_EQ(TextOf(dir.File("f")), std::string("a\n\0b", 4));
  EXPECT_EQ(TextOf(dir.File("missing")), "");
  EXPECT_EQ(TextOf(dir.Path()), "");
  EXPECT_NE(TextOf("/proc/self/maps").find("base_test"), std::string::npos);
}

TEST(FileName, DirectoryOfAPath) {
  EXPECT_EQ(DirectoryOf("a/b"), "a");
  EXPECT_EQ(DirectoryOf("a//b"), "a");
  EXPECT_EQ(DirectoryOf("a/b/"), "a");
  EXPECT_EQ(DirectoryOf("/a"), "/");
  EXPECT_EQ(DirectoryOf("//a"), "/");
  EXPECT_EQ(DirectoryOf("a"), ".");
  EXPECT_EQ(DirectoryOf("a/"), ".");
  EXPECT_EQ(DirectoryOf("/"), "/");
  EXPECT_EQ(DirectoryOf(""), ".");
}

TEST(FileName, NameOfAPath) {
  EXPECT_EQ(NameOf("a/b"), "b");
  EXPECT_EQ(NameOf("a/b//"), "b");
  EXPECT_EQ(NameOf("/a"), "a");
  EXPECT_EQ(NameOf("a"), "a");
  EXPECT_EQ(NameOf("/"), "");
  EXPECT_EQ(NameOf(""), "");
}

TEST(FileDirectory, ListsEveryNameButItsOwnAndItsParents) {
  const TempDir dir;
  std::set<std::string> expected;
  for (int i = 0; i < 2000; ++i) expected.insert("a name of some length " + std::to_string(i));
  for (const std::string& name : expected) WriteFile(dir.File(name), "");
  std::vector<std::string> names;
  EXPECT_EQ(ListNames(OpenDirectory(dir.Path().c_str()).Number(), names), 0);
  EXPECT_EQ(names.size(), expected.size());
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), expected);
}

TEST(FileDirectory, FailedListingKeepsTheNamesThatCameBefore) {
  const TempDir dir;
  for (int i = 0; i < 2000; ++i) WriteFile(dir.File("a name of some length " + std::to_string(i)), "");
  const FailingCall fault({.call = FileCall::kReadEntries, .nth = 2, .error = EIO});
  std::vector<std::string> names;
  EXPECT_EQ(ListNames(OpenDirectory(dir.Path().c_str()).Number(), names), EIO);
  EXPECT_GT(names.size(), 100U);
  EXPECT_LT(names.size(), 2000U);
}

TEST(FileDirectory, ListingContinuesAfterASignalAndARemovedDirectoryIsEmpty) {
  const TempDir dir;
  ASSERT_EQ(MakeDirectory(dir.File("sub").c_str(), 0700), 0);
  const Descriptor sub = OpenDirectory(dir.File("sub").c_str());
  std::vector<std::string> names;
  {
    const FailingCall fault({.call = FileCall::kReadEntries, .error = EINTR});
    EXPECT_EQ(ListNames(OpenDirectory(dir.Path().c_str()).Number(), names), 0);
    EXPECT_EQ(names, std::vector<std::string>{"sub"});
  }
  ASSERT_EQ(Remove("sub", AT_REMOVEDIR, OpenDirectory(dir.Path().c_str()).Number()), 0);
  EXPECT_EQ(ListNames(sub.Number(), names), 0);
  EXPECT_EQ(names.size(), 1U);
}

TEST(FileDirectory, MakeDirectoryReplacesNothing) {
  const TempDir dir;
  WriteFile(dir.File("f"), "kept");
  EXPECT_EQ(MakeDirectory("f", 0700, OpenDirectory(dir.Path().c_str()).Number()), EEXIST);
  EXPECT_EQ(ReadFile(dir.File("f")), "kept");
}

TEST(FileName, LinkReplacesNothing) {
  const TempDir dir;
  WriteFile(dir.File("from"), "new");
  EXPECT_EQ(Link(dir.File("from").c_str(), dir.File("to").c_str()), 0);
  EXPECT_EQ(ReadFile(dir.File("to")), "new");
  EXPECT_EQ(Link(dir.File("from").c_str(), dir.File("to").c_str()), EEXIST);
}

TEST(FileRename, WithoutReplacingKeepsAnExistingTarget) {
  const TempDir dir;
  WriteFile(dir.File("from"), "new");
  WriteFile(dir.File("to"), "old");
  EXPECT_EQ(RenameWithoutReplacing(dir.File("from").c_str(), dir.File("to").c_str()), EEXIST);
  EXPECT_EQ(ReadFile(dir.File("to")), "old");
  // The call fails as on a file system that does not know the flag.
  const FailingCall fault({.call = FileCall::kRename, .error = EINVAL});
  EXPECT_EQ(RenameWithoutReplacing(dir.File("from").c_str(), dir.File("to").c_str()), EEXIST);
  EXPECT_EQ(ReadFile(dir.File("to")), "old");
}

TEST(FileRename, WithoutReplacingWorksWithoutTheFlag) {
  const TempDir dir;
  WriteFile(dir.File("from"), "new");
  const FailingCall fault({.call = FileCall::kRename, .error = EINVAL});
  EXPECT_EQ(RenameWithoutReplacing(dir.File("from").c_str(), dir.File("to").c_str()), 0);
  EXPECT_EQ(ReadFile(dir.File("to")), "new");
}

TEST(FileRename, ExchangeSwapsBothNames) {
  const TempDir dir;
  WriteFile(dir.File("a"), "1");
  WriteFile(dir.File("b"), "2");
  EXPECT_EQ(Exchange(dir.File("a").c_str(), dir.File("b").c_str()), 0);
  EXPECT_EQ(ReadFile(dir.File("a")) + ReadFile(dir.File("b")), "21");
}

TEST(FileLock, SecondOpenFileDoesNotGetTheLock) {
  const TempDir dir;
  WriteFile(dir.File("f"), "");
  const Descriptor first = OpenRegular(dir.File("f").c_str(), O_RDONLY);
  const Descriptor second = OpenRegular(dir.File("f").c_str(), O_RDONLY);
  EXPECT_EQ(TryLock(first.Number()), 0);
  EXPECT_EQ(TryLock(second.Number()), EWOULDBLOCK);
}

TEST(FileStatus, SameFileHasOneIdentityUnderTwoNames) {
  const TempDir dir;
  WriteFile(dir.File("a"), "1");
  WriteFile(dir.File("b"), "1");
  ASSERT_EQ(link(dir.File("a").c_str(), dir.File("c").c_str()), 0);
  struct stat a;
  struct stat b;
  struct stat c;
  ASSERT_EQ(StatusOf(dir.File("a").c_str(), a), 0);
  ASSERT_EQ(StatusOf(dir.File("b").c_str(), b), 0);
  ASSERT_EQ(StatusOf(dir.File("c").c_str(), c), 0);
  EXPECT_TRUE(IsSameFile(a, c));
  EXPECT_FALSE(IsSameFile(a, b));
}

}  // namespace
