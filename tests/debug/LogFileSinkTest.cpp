#include "debug/LogFileSink.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "tests/debug/TraceFixture.h"
#include "tests/support/FailingFileCalls.h"

namespace {

using qx::debug::LogFileSink;
using qx::test::DescriptorOf;
using qx::test::FailingCall;
using qx::test::FileCall;
using qx::test::ReadFile;
using qx::test::SyslogCapture;
using qx::test::TempDir;
using qx::test::TraceSetup;
using qx::test::WriteFile;
using testing::ElementsAre;
using testing::IsEmpty;

std::string LoggedEntry(std::string_view text) { return "S [T] QxTrace       " + std::string(text); }

// The number of bytes that a text of `n` characters takes in the log of TraceSetup, with its line feed.
constexpr std::size_t EntryBytes(std::size_t n) { return TraceSetup::kHeaderBytes + n + 1; }

TEST(LogFileSink, EntryThatCrossesTheLimitIsWholeAndTheHeadStays) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));  // 51200 bytes
  setup.Trace().Print(1, "head");
  setup.Trace().SetApplInitDone();
  const std::size_t head = EntryBytes(4);
  const std::string filler(1024, 'f');
  std::size_t count = head;
  while (count <= 51200) {
    setup.Trace().Print(1, "%s", filler.c_str());
    count += EntryBytes(filler.size());
  }
  setup.Trace().Print(1, "after the wrap");

  const std::string log = setup.Log();
  EXPECT_EQ(log.size(), count);
  EXPECT_EQ(log.back(), '\n');
  EXPECT_EQ(log[count - 2], 'f');
  const std::string line = "------ WRAP ----- Cycle=1, CntInitEnd=54, CurrentByteCnt=54 (MaxCnt=51200)\n";
  const std::string wrapped = LoggedEntry("head\n") + LoggedEntry(line) + LoggedEntry("after the wrap\n");
  EXPECT_EQ(qx::test::WithoutStamps(log).substr(0, wrapped.size()), wrapped);
}

TEST(LogFileSink, OpeningAnotherFileClosesTheFirst) {
  const TempDir directory;
  LogFileSink sink;
  ASSERT_TRUE(sink.Open(directory.Path().c_str(), "first", 51200));
  const std::string first = std::filesystem::directory_iterator(directory.Path())->path();
  ASSERT_NE(DescriptorOf(first), -1);
  ASSERT_TRUE(sink.Open(directory.Path().c_str(), "second", 51200));
  EXPECT_EQ(DescriptorOf(first), -1);
}

TEST(LogFileSink, CountThatEqualsTheLimitDoesNotWrap) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", std::to_string(EntryBytes(5)).c_str());
  ASSERT_TRUE(setup.InitAtLevel(1));
  setup.Trace().Print(1, "12345");
  EXPECT_EQ(setup.PlainLog(), LoggedEntry("12345\n"));
}

TEST(LogFileSink, WithoutAHeadTheLogWrapsToItsStartAndOldTextStays) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "300");
  ASSERT_TRUE(setup.InitAtLevel(1));
  const std::string old(400, 'o');
  setup.Trace().Print(1, "%s", old.c_str());
  const std::string line = "------ WRAP ----- Cycle=1, CntInitEnd=0, CurrentByteCnt=0 (MaxCnt=300)\n";
  const std::string log = setup.Log();
  EXPECT_EQ(log.size(), EntryBytes(400));
  const std::size_t line_bytes = TraceSetup::kHeaderBytes + line.size();
  EXPECT_EQ(qx::test::WithoutStamps(log.substr(0, line_bytes)), LoggedEntry(line));
  EXPECT_EQ(log.substr(line_bytes), std::string(EntryBytes(400) - 1 - line_bytes, 'o') + "\n");
}

TEST(LogFileSink, WrapLineCountsTowardsTheNextCycle) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "250");
  ASSERT_TRUE(setup.InitAtLevel(1));
  setup.Trace().Print(1, "%s", std::string(201, 'a').c_str());  // 251 bytes: wraps; the wrap line makes 120 again
  setup.Trace().Print(1, "%s", std::string(80, 'b').c_str());   // 250: does not wrap
  EXPECT_EQ(setup.Log().find("Cycle=2"), std::string::npos);
  setup.Trace().Print(1, "c");
  EXPECT_NE(setup.Log().find("Cycle=2"), std::string::npos);
}

TEST(LogFileSink, WrapLineHasTheHeaderOfTheEntryThatCrossed) {
  const TempDir directory;
  LogFileSink sink;
  ASSERT_TRUE(sink.Open(directory.Path().c_str(), "app", 10));
  sink.Write("HEADER text\n", 7);
  EXPECT_EQ(ReadFile(directory.File("log.app")),
            "HEADER ------ WRAP ----- Cycle=1, CntInitEnd=0, CurrentByteCnt=0 (MaxCnt=10)\n");
}

TEST(LogFileSink, LimitOfZeroWrapsAtEveryEntry) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "0");
  ASSERT_TRUE(setup.InitAtLevel(1));
  for (int i = 0; i < 3; ++i) setup.Trace().Print(1, "e%d", i);
  const std::string line = "------ WRAP ----- Cycle=3, CntInitEnd=0, CurrentByteCnt=0 (MaxCnt=0)\n";
  EXPECT_EQ(setup.PlainLog().substr(0, LoggedEntry(line).size()), LoggedEntry(line));
}

// The length of the longest wrap line at a limit below 1000 bytes.
constexpr std::size_t kWrapLineBytesMax = 124;

// The file may exceed its limit by the wrap line and one entry; if the limit is below 120 bytes, also by a second wrap
// line.
TEST(LogFileSink, SmallLimitsAreExceededByTwoWrapLinesAndAnEntryAtMost) {
  const std::size_t entry = EntryBytes(20);
  for (const std::size_t limit : {0U, 1U, 60U, 118U, 119U, 120U, 150U, 300U, 999U}) {
    TraceSetup setup;
    setup.SetEnv("QX_LOG_FILE_MAX_SIZE", std::to_string(limit).c_str());
    ASSERT_TRUE(setup.InitAtLevel(1));
    setup.Trace().Print(1, "%s", std::string(20, 'h').c_str());
    setup.Trace().SetApplInitDone();
    for (int i = 0; i < 50; ++i) setup.Trace().Print(1, "%s", std::string(20, 'e').c_str());
    const std::size_t lines = limit < 120 ? 2 : 1;
    EXPECT_LE(setup.Log().size(), limit + lines * kWrapLineBytesMax + entry) << limit;
    if (limit < 60) {
      EXPECT_GT(setup.Log().size(), limit + kWrapLineBytesMax + entry) << limit;
    }
  }
}

TEST(LogFileSink, LimitOfAllOnesNeverWraps) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "-1");
  ASSERT_TRUE(setup.InitAtLevel(1));
  const std::string text(1000, 'x');
  for (int i = 0; i < 100; ++i) setup.Trace().Print(1, "%s", text.c_str());
  EXPECT_EQ(setup.Log().size(), 100 * EntryBytes(1000));
}

TEST(LogFileSink, SecondInitCountsBytesAndCyclesAgain) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "10");
  ASSERT_TRUE(setup.InitAtLevel(1));
  setup.Trace().Print(1, "a");
  setup.Trace().SetApplInitDone();
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "100");
  ASSERT_TRUE(setup.Init());
  setup.Trace().Print(1, "%s", std::string(300, 'x').c_str());
  const std::string line = "------ WRAP ----- Cycle=1, CntInitEnd=0, CurrentByteCnt=0 (MaxCnt=100)\n";
  EXPECT_EQ(setup.PlainLog().substr(0, LoggedEntry(line).size()), LoggedEntry(line));
}

TEST(LogFileSink, WrapThatCannotSeekIsReportedAndTracingContinues) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "60");
  ASSERT_TRUE(setup.InitAtLevel(1));
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ASSERT_GE(::dup2(ends[1], DescriptorOf(setup.LogPath())), 0);
  ::close(ends[1]);
  const SyslogCapture syslog;
  setup.Trace().Print(1, "twelve bytes");
  EXPECT_THAT(syslog.Messages(),
              ElementsAre("3 ERROR: fseek failed for " + setup.LogPath() + " (errno=29) --> rewind it\n"));
  char piped[512];
  const ssize_t got = ::read(ends[0], piped, sizeof piped);
  ::close(ends[0]);
  ASSERT_GT(got, 0);
  EXPECT_EQ(qx::test::WithoutStamps({piped, static_cast<std::size_t>(got)}),
            LoggedEntry("twelve bytes\n") +
                LoggedEntry("------ WRAP ----- Cycle=1, CntInitEnd=0, CurrentByteCnt=0 (MaxCnt=60)\n"));
}

TEST(LogFileSink, ShortWritesAreContinued) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  {
    const FailingCall writes({.call = FileCall::kWrite, .times = qx::test::kAlways, .bytes = 7});
    setup.Trace().Print(1, "abcdefg");
    EXPECT_EQ(writes.Calls(), 9);  // 57 bytes
  }
  setup.Trace().Print(1, "next");
  EXPECT_EQ(setup.PlainLog(), LoggedEntry("abcdefg\n") + LoggedEntry("next\n"));
}

TEST(LogFileSink, FullDiskLosesOnlyTheEntry) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  setup.Trace().Print(1, "before");
  const int descriptor = DescriptorOf(setup.LogPath());
  const int kept = ::dup(descriptor);
  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(::dup2(full, descriptor), 0);
  setup.Trace().Print(1, "lost");
  ASSERT_GE(::dup2(kept, descriptor), 0);
  ::close(kept);
  ::close(full);
  setup.Trace().Print(1, "after");
  EXPECT_EQ(setup.PlainLog(), LoggedEntry("before\n") + LoggedEntry("after\n"));
}

TEST(LogFileSink, OnlyWrittenBytesCountTowardsTheLimit) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "200");
  ASSERT_TRUE(setup.InitAtLevel(1));
  const int descriptor = DescriptorOf(setup.LogPath());
  const int kept = ::dup(descriptor);
  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(::dup2(full, descriptor), 0);
  for (int i = 0; i < 20; ++i) setup.Trace().Print(1, "lost");
  ASSERT_GE(::dup2(kept, descriptor), 0);
  ::close(kept);
  ::close(full);
  setup.Trace().Print(1, "after");
  EXPECT_EQ(setup.PlainLog(), LoggedEntry("after\n"));
}

TEST(LogFileSink, IsOpenedCloseOnExecWithMode0640LessTheUmask) {
  TraceSetup setup;
  for (const auto& [umask, mode] : {std::pair<mode_t, mode_t>{0, 0640}, {0137, 0640}, {0077, 0600}}) {
    std::filesystem::remove(setup.LogPath());
    const mode_t umask_before = ::umask(umask);
    ASSERT_TRUE(setup.InitAtLevel(1));
    ::umask(umask_before);
    struct stat status {};
    ASSERT_EQ(::stat(setup.LogPath().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, mode);
  }
  EXPECT_EQ(::fcntl(DescriptorOf(setup.LogPath()), F_GETFD), FD_CLOEXEC);
}

TEST(LogFileSink, IsNeverOpenedThroughASymbolicLink) {
  TraceSetup setup;
  const std::string target = setup.LogDir().File("target");
  WriteFile(target, "precious");
  std::filesystem::create_symlink(target, setup.LogPath());
  const SyslogCapture syslog;
  EXPECT_TRUE(setup.InitAtLevel(1));
  setup.Trace().PrintAlways("nowhere");
  EXPECT_EQ(ReadFile(target), "precious");
  EXPECT_EQ(syslog.Messages().size(), 1U);
}

TEST(LogFileSink, FileThatIsNotRegularIsRefused) {
  for (const bool is_pipe : {true, false}) {
    TraceSetup setup;
    if (is_pipe) {
      ASSERT_EQ(::mkfifo(setup.LogPath().c_str(), 0600), 0);
    } else {
      std::filesystem::create_directory(setup.LogPath());
    }
    const SyslogCapture syslog;
    EXPECT_TRUE(setup.InitAtLevel(1));
    EXPECT_EQ(DescriptorOf(setup.LogPath()), -1);
    EXPECT_EQ(syslog.Messages().size(), 1U);
  }
}

TEST(LogFileSink, TooLongPathIsNotCutToAnotherFile) {
  const TempDir directory;
  const std::string name(300, 'n');
  LogFileSink sink;
  const SyslogCapture syslog;
  EXPECT_FALSE(sink.Open(directory.Path().c_str(), name.c_str(), 51200));
  EXPECT_FALSE(sink.IsOpen());
  EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
  EXPECT_EQ(syslog.Messages().size(), 1U);
}

}  // namespace
