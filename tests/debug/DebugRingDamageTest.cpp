// Tests damaged ring files, and paths that cannot be a ring: tracing continues, and the log has the reason.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "tests/debug/RingFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingFileCalls.h"
#include "tests/support/PrivateMounts.h"

namespace {

using qx::test::Exists;
using qx::test::FailingCall;
using qx::test::FileCall;
using qx::test::kTerminator;
using qx::test::MountMemory;
using qx::test::ReadFile;
using qx::test::RingSetup;
using qx::test::Undated;
using qx::test::UndatedEntry;
using qx::test::WithPrivateMounts;
using qx::test::WriteFile;
using testing::HasSubstr;

constexpr std::uint32_t kSize = 32768;

std::string OpenFailed(const RingSetup& setup, int error) {
  return UndatedEntry("### InitRingBuffer(): open of " + setup.RingPath() + " failed (errno=" + std::to_string(error) +
                      "; " + std::strerror(error) + ") ###\n");
}

// Opens a ring that cannot be made. The log must have `message`, and the entries after it.
void ExpectNoRing(RingSetup& setup, const std::string& message) {
  EXPECT_FALSE(setup.OpenRing(kSize));
  setup.Trace().Print(1, "goes on");
  setup.Trace().PrintAlways("always");
  setup.Trace().PrintIt(CDebug::kTargetRingBuffer, "nowhere");
  setup.Trace().SetApplInitDone();
  EXPECT_EQ(Undated(setup.Log()), message + UndatedEntry("goes on\n") + UndatedEntry("always\n"));
  EXPECT_EQ(qx::test::DescriptorOf(setup.RingPath()), -1);
  EXPECT_THAT(setup.HeaderBlock(), HasSubstr("Ring Buffer FD             : -1\n"));
}

TEST(DebugRingDamage, DirectoryInPlaceOfTheRing) {
  RingSetup setup;
  std::filesystem::create_directory(setup.RingPath());
  ExpectNoRing(setup, OpenFailed(setup, EISDIR));
  EXPECT_TRUE(std::filesystem::is_directory(setup.RingPath()));
}

TEST(DebugRingDamage, PipeInPlaceOfTheRingIsNotOpened) {
  RingSetup setup;
  ASSERT_EQ(::mkfifo(setup.RingPath().c_str(), 0600), 0);
  ExpectNoRing(setup, OpenFailed(setup, EINVAL));
}

TEST(DebugRingDamage, SocketInPlaceOfTheRing) {
  RingSetup setup;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(setup.RingPath().copy(address.sun_path, sizeof address.sun_path), sizeof address.sun_path);
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ExpectNoRing(setup, OpenFailed(setup, EINVAL));
  ::close(socket);
}

TEST(DebugRingDamage, SymbolicLinkInPlaceOfTheRingIsNotFollowed) {
  for (const bool is_dangling : {false, true}) {
    RingSetup setup;
    const std::string target = setup.LogDir().File("target");
    if (!is_dangling) WriteFile(target, std::string(kSize, 'p'));
    std::filesystem::create_symlink(target, setup.RingPath());
    ExpectNoRing(setup, OpenFailed(setup, ELOOP));
    if (is_dangling) {
      EXPECT_FALSE(Exists(target));
    } else {
      EXPECT_EQ(ReadFile(target), std::string(kSize, 'p'));
    }
  }
}

TEST(DebugRingDamage, MissingDirectory) {
  RingSetup setup;
  const std::string path = setup.LogDir().File("missing/ring");
  EXPECT_FALSE(setup.Trace().InitRingBuffer(path.c_str(), kSize));
  EXPECT_EQ(Undated(setup.Log()), UndatedEntry("### InitRingBuffer(): open of " + path +
                                               " failed (errno=2; No such file or directory) ###\n"));
}

TEST(DebugRingDamage, SizeBelowOnePageIsRefused) {
  RingSetup setup;
  EXPECT_FALSE(setup.OpenRing(4095));
  EXPECT_EQ(Undated(setup.Log()), OpenFailed(setup, EINVAL));
  EXPECT_FALSE(Exists(setup.RingPath()));
}

TEST(DebugRingDamage, FileWhoseStatusFailsIsClosedAndStays) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSize));
  ASSERT_TRUE(setup.Init());  // closes it
  const std::string ring = setup.Ring();
  {
    const FailingCall unreadable({.call = FileCall::kStatus, .times = qx::test::kAlways, .error = EIO});
    EXPECT_FALSE(setup.OpenRing(kSize));
  }
  EXPECT_EQ(Undated(setup.Log()), OpenFailed(setup, EINVAL));
  EXPECT_EQ(qx::test::DescriptorOf(setup.RingPath()), -1);
  EXPECT_EQ(setup.Ring(), ring);
}

TEST(DebugRingDamage, FailedSecondAttemptKeepsTracingInTheLog) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSize));
  EXPECT_FALSE(setup.OpenRing(1));
  EXPECT_EQ(qx::test::DescriptorOf(setup.RingPath()), -1);
  setup.Trace().Print(1, "goes on");
  EXPECT_EQ(Undated(setup.Log()), OpenFailed(setup, EINVAL) + UndatedEntry("goes on\n"));
}

TEST(DebugRingDamage, FailedAttemptLeavesATargetOtherThanTheRing) {
  RingSetup setup;
  setup.Trace().SetTarget(CDebug::kTargetNone);
  EXPECT_FALSE(setup.OpenRing(1));
  setup.Trace().Print(1, "nowhere");
  EXPECT_EQ(Undated(setup.Log()), OpenFailed(setup, EINVAL));
}

// The ring that a run leaves, with a last entry "newest" that ends at `position`.
struct RingOfPreviousRun {
  RingOfPreviousRun() {
    EXPECT_TRUE(setup.OpenRing(kSize));
    setup.Trace().Print(1, "oldest");
    setup.Trace().Print(1, "newest");
    position = setup.Position();
    EXPECT_TRUE(setup.Init());  // closes it
  }
  // The ring with which the next run starts.
  std::string Restarted() {
    EXPECT_TRUE(setup.OpenRing(kSize));
    return Undated(setup.Ring());
  }
  bool HasRestarted() {
    const std::string ring = Restarted();
    return setup.Opens() == 1 && setup.Wraps() == 0 && ring.size() == kSize && ring.find("newest") == std::string::npos;
  }

  RingSetup setup;
  std::size_t position = 0;
};

TEST(DebugRingDamage, FileOfAnotherSizeIsCreatedAgain) {
  for (const std::size_t size : {0U, 1U, 640U, 32767U, 32769U, 65536U}) {
    RingOfPreviousRun left;
    std::filesystem::resize_file(left.setup.RingPath(), size);
    EXPECT_TRUE(left.HasRestarted()) << size;
  }
}

TEST(DebugRingDamage, FileOfAnotherSizeIsReplacedForProcessesThatMappedIt) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSize));
  qx::test::TestDebug other("/nonexistent");
  ASSERT_TRUE(other.Init("Other"));
  ASSERT_TRUE(other.InitRingBuffer(setup.RingPath().c_str(), kSize / 2));
  for (int i = 0; i < 500; ++i) setup.Trace().Print(1, "into the old file %d", i);
  EXPECT_EQ(setup.Ring().size(), kSize / 2);
  EXPECT_EQ(setup.Ring().find("into the old file"), std::string::npos);
}

TEST(DebugRingDamage, ImpossibleWritePositionsMakeTheNextEntryWrap) {
  for (const char* position : {"0000000000000000", "0000000000001023", "0000000000032769", "9999999999999999",
                               "00000000000x2000", "                ", "-000000000000001", "0000004294967297"}) {
    RingOfPreviousRun left;
    left.setup.Patch(515, position);
    const std::string ring = left.Restarted();
    EXPECT_EQ(left.setup.Wraps(), 1U) << position;
    EXPECT_EQ(ring.substr(left.setup.Position(), 16), kTerminator);
    const std::string line = UndatedEntry("### Start of work cycle. (00000002) ###\n");
    EXPECT_EQ(ring.substr(left.setup.Position() - line.size(), line.size()), line);
    EXPECT_EQ(ring.substr(kSize - 100).find('.'), std::string::npos);  // there is no space left to fill
  }
}

TEST(DebugRingDamage, WritePositionAtTheVeryEndWraps) {
  RingOfPreviousRun left;
  left.setup.Patch(515, "0000000000032768");
  (void)left.Restarted();
  EXPECT_EQ(left.setup.Wraps(), 1U);
}

TEST(DebugRingDamage, PossibleWritePositionIsUsed) {
  RingOfPreviousRun left;
  left.setup.Patch(515, "0000000000020000");
  const std::string line = UndatedEntry("### Start of work cycle. (00000002) ###\n");
  EXPECT_EQ(left.Restarted().substr(20000, line.size() + 16), line + std::string(kTerminator));
}

TEST(DebugRingDamage, UnreadableCountsStartAgain) {
  for (const char* garbage : {"################", "99999999999999999", "-000000000000001"}) {
    RingOfPreviousRun left;
    left.setup.Patch(275, std::string_view(garbage).substr(0, 16));
    left.setup.Patch(355, std::string_view(garbage).substr(0, 16));
    left.setup.Patch(435, std::string_view(garbage).substr(0, 16));
    (void)left.Restarted();
    EXPECT_EQ(left.setup.Opens(), 1U);
    EXPECT_EQ(left.setup.Wraps(), 0U);
    EXPECT_EQ(left.setup.Number(5), kSize);
  }
}

TEST(DebugRingDamage, HeaderThatWasOverwrittenIsWholeAgain) {
  RingOfPreviousRun left;
  const std::string before = left.setup.Ring();
  left.setup.Patch(0, std::string(640, '\0'));
  const std::string ring = left.Restarted();
  for (const std::size_t line : {0U, 1U, 2U, 3U, 4U, 5U, 6U}) {
    EXPECT_EQ(ring.substr(80 * line, 35), before.substr(80 * line, 35));
    EXPECT_EQ(ring.substr(80 * line + 78, 2), "|\n");
  }
  EXPECT_EQ(left.setup.Value(0), left.setup.RingPath().substr(0, 43));
  EXPECT_EQ(left.setup.Value(1), left.setup.Value(2));
  EXPECT_EQ(left.setup.Opens(), 1U);
  EXPECT_EQ(left.setup.Wraps(), 1U);  // no position: the first entry wraps
  EXPECT_THAT(ring, HasSubstr(UndatedEntry("newest\n")));
}

TEST(DebugRingDamage, EntryThatWasCompleteWhenItsWriterWasKilledIsKept) {
  RingOfPreviousRun left;
  const std::size_t entry_bytes = UndatedEntry("newest\n").size();
  left.setup.Patch(515, qx::test::RingDigits(left.position - entry_bytes));
  const std::string start = UndatedEntry("### Start of work cycle. (00000002) ###\n");
  EXPECT_THAT(left.Restarted(), HasSubstr(UndatedEntry("newest\n") + start + std::string(kTerminator)));
}

TEST(DebugRingDamage, FileTruncatedWhileMappedIsNoticedAtTheNextWrap) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSize));
  setup.FillUpTo(100);
  std::filesystem::resize_file(setup.RingPath(), kSize - 1);
  setup.Trace().Print(1, "%s", std::string(100, 'x').c_str());
  setup.Trace().Print(1, "goes on");
  EXPECT_EQ(Undated(setup.Log()), UndatedEntry("### TraceToRingBuffer(): " + setup.RingPath() +
                                               " has been cut --> proceed without it ###\n") +
                                      UndatedEntry(std::string(100, 'x') + "\n") + UndatedEntry("goes on\n"));
  EXPECT_EQ(qx::test::DescriptorOf(setup.RingPath()), -1);
}

TEST(DebugRingDamage, EntryForBothTargetsIsInTheLogOnceIfTheRingWasCut) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSize));
  setup.FillUpTo(100);
  std::filesystem::resize_file(setup.RingPath(), kSize - 1);
  setup.Trace().PrintAlways("%s", std::string(100, 'x').c_str());
  setup.Trace().PrintAlways("goes on");
  EXPECT_THAT(Undated(setup.Log()),
              testing::EndsWith("it ###\n" + UndatedEntry(std::string(100, 'x') + "\n") + UndatedEntry("goes on\n")));
}

TEST(DebugRingDamage, CommandLineIsInTheLogOnceIfTheRingWasCut) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSize));
  setup.FillUpTo(60);
  std::filesystem::resize_file(setup.RingPath(), kSize - 1);
  char program[] = "agent";
  char* argv[] = {program, nullptr};
  setup.Trace().SetMainParams(1, argv);
  EXPECT_THAT(Undated(setup.Log()), testing::EndsWith("it ###\n" + UndatedEntry("QxTrace Command Line Options:\n") +
                                                      UndatedEntry("argv[0] = \"agent\"\n")));
}

TEST(DebugRingDamage, DeletedFileIsStillWrittenAndTheNextStartCreatesOne) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSize));
  std::filesystem::remove(setup.RingPath());
  for (int i = 0; i < 1000; ++i) setup.Trace().Print(1, "unseen");
  EXPECT_EQ(setup.Log(), "");
  ASSERT_TRUE(setup.Restart(kSize));
  EXPECT_EQ(setup.Opens(), 1U);
}

// --- full disks and limits --------------------------------------------------------------------------------------

// The log after the set-up of a ring in a file system of `capacity` bytes, in which another file uses `used` bytes.
std::string LogOfFullDisk(const std::string& capacity, std::size_t used, std::uint32_t size) {
  RingSetup setup;
  return WithPrivateMounts([&] {
    const std::string directory = setup.LogDir().File("disk");
    std::filesystem::create_directory(directory);
    MountMemory(directory, capacity);
    if (used > 0) WriteFile(directory + "/used", std::string(used, 'u'));
    const std::string path = directory + "/ring";
    if (setup.Trace().InitRingBuffer(path.c_str(), size)) return std::string("a ring");
    setup.Trace().Print(1, "goes on");
    if (Exists(path)) return std::string("a file is left");
    std::string log = Undated(setup.Log());
    for (std::size_t at = 0; (at = log.find(path)) != std::string::npos;) log.replace(at, path.size(), "RING");
    return log;
  });
}

TEST(DebugRingDamage, FullDiskIsReportedAtCreationAndTheSpaceIsFreed) {
  EXPECT_EQ(LogOfFullDisk("16k", 16384, kSize),
            UndatedEntry("### InitRingBuffer(): write haeder to RING failed ###\n") + UndatedEntry("goes on\n"));
  EXPECT_EQ(LogOfFullDisk("16k", 0, kSize),
            UndatedEntry("### InitRingBuffer(): (2) write m_InternalDebugBuffer to RING failed ###\n") +
                UndatedEntry("goes on\n"));
  EXPECT_EQ(LogOfFullDisk("64k", 0, 0xFFF00000),
            UndatedEntry("### InitRingBuffer(): (2) write m_InternalDebugBuffer to RING failed ###\n") +
                UndatedEntry("goes on\n"));
}

TEST(DebugRingDamage, SparseFileOnAFullDiskIsRefused) {
  RingSetup setup;
  EXPECT_EQ(WithPrivateMounts([&] {
              const std::string directory = setup.LogDir().File("disk");
              std::filesystem::create_directory(directory);
              MountMemory(directory, "16k");
              WriteFile(directory + "/ring", "");
              std::filesystem::resize_file(directory + "/ring", kSize);
              const bool is_open = setup.Trace().InitRingBuffer((directory + "/ring").c_str(), kSize);
              return std::string(is_open ? "a ring" : "none");
            }),
            "none");
  EXPECT_THAT(setup.Log(), HasSubstr("### InitRingBuffer(): (2) write m_InternalDebugBuffer to "));
}

TEST(DebugRingDamage, EveryFailedWriteOfANewFileHasItsMessageAndLeavesNoFile) {
  const char* const messages[] = {"write haeder to ", "write m_InternalDebugBuffer to ",
                                  "(2) write m_InternalDebugBuffer to "};
  for (int nth = 1; nth <= 4; ++nth) {
    RingSetup setup;
    {
      const FailingCall failed({.call = FileCall::kWrite, .nth = nth, .error = EIO});
      EXPECT_FALSE(setup.OpenRing(kSize));
    }
    EXPECT_EQ(Undated(setup.Log()),
              UndatedEntry("### InitRingBuffer(): " + std::string(messages[std::min(nth, 3) - 1]) + setup.RingPath() +
                           " failed ###\n"));
    EXPECT_FALSE(Exists(setup.RingPath()));
    EXPECT_TRUE(setup.OpenRing(kSize));
  }
}

TEST(DebugRingDamage, FileSizeLimitOfTheProcessDoesNotEndIt) {
  RingSetup setup;
  EXPECT_EQ(qx::test::TextOfChild([&]() -> std::string {
              if (!qx::test::LimitFileSize(kSize - 1)) return "no limit";
              ::signal(SIGXFSZ, SIG_DFL);
              return setup.OpenRing(kSize) ? "a ring" : "none";
            }),
            "none");
  EXPECT_THAT(setup.Log(), HasSubstr("(2) write m_InternalDebugBuffer"));
  EXPECT_FALSE(Exists(setup.RingPath()));
}

#ifndef QX_ADDRESS_SANITIZER  // it needs memory of its own
TEST(DebugRingDamage, FailedMappingIsReportedAndTheFileStays) {
  RingSetup setup;
  EXPECT_EQ(qx::test::TextOfChild([&]() -> std::string {
              const rlimit none{1, 1};
              ::setrlimit(RLIMIT_AS, &none);
              return setup.OpenRing(kSize) ? "a ring" : "none";
            }),
            "none");
  EXPECT_EQ(Undated(setup.Log()), UndatedEntry("### InitRingBuffer(): mmap of " + setup.RingPath() +
                                               " failed (errno=12; Cannot allocate memory) ###\n"));
  EXPECT_EQ(setup.Ring().size(), kSize);
}
#endif

TEST(DebugRingDamage, FactorsAndWeightsWithoutARingLeaveTheLog) {
  const char* const pairs[][2] = {{"2", "2147483647"}, {"-1", "1"}, {"1", "-1"}, {"1", "0"}, {"0", "1"}, {"1", "x"}};
  for (const auto& [factor, weight] : pairs) {
    RingSetup setup;
    setup.SetEnv("TraceFileLimit", factor);
    setup.SetEnv("QX_LOG_RINGBUF_WEIGHT", weight);
    ASSERT_TRUE(setup.InitAtLevel(1));
    setup.Trace().Print(1, "into the log");
    EXPECT_EQ(Undated(setup.Log()), UndatedEntry("into the log\n"));
    EXPECT_FALSE(Exists(setup.RingPath()));
  }
}

}  // namespace
