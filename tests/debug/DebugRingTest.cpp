// Tests the bytes of the ring file when it is made, filled, wrapped and opened again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <optional>
#include <random>

#include "tests/debug/RingFixture.h"
#include "tests/support/ChildProcess.h"

namespace {

using qx::test::kTerminator;
using qx::test::ReadFile;
using qx::test::RingModel;
using qx::test::RingSetup;
using qx::test::Undated;
using qx::test::UndatedEntry;

constexpr std::uint32_t kSmall = 32768;  // enough for the header block, of about 8 KiB, and some entries
constexpr std::uint32_t kLarge = 2U << 20;

// The first difference between the ring's bytes and the model's, as a text. A digit of a stamp that was partly
// overwritten is shown as it is in the ring.
std::string Difference(const std::string& ring, const std::string& model) {
  if (ring.size() != model.size()) return "sizes";
  const auto is_same = [](char a, char b) {
    return a == b || (b == '\1' && std::isxdigit(static_cast<unsigned char>(a)));
  };
  const auto at = std::mismatch(ring.begin(), ring.end(), model.begin(), is_same).first;
  if (at == ring.end()) return "";
  const auto place = static_cast<std::size_t>(at - ring.begin());
  const std::size_t from = place > 60 ? place - 60 : 0;
  return "differs at " + std::to_string(place) + ": " + ring.substr(from, 120) + " / " + model.substr(from, 120);
}

// The formats are arguments of the tests, so the compiler cannot check them.
void PrintText(CDebug& debug, const char* format, const char* argument) { debug.Print(1, format, argument); }

// A setup with its model, both new, of one size.
struct Compared {
  explicit Compared(std::uint32_t ring_size) : size(ring_size) {
    EXPECT_TRUE(setup.OpenRing(size));
    header_block = setup.HeaderBlock();
    model.emplace(setup.RingPath(), size, setup.Value(1));
    model->WriteNewFile(header_block);
  }
  void Print(const std::string& text) {
    setup.Trace().Print(1, "%s", text.c_str());
    model->Entry(UndatedEntry(text + "\n"), header_block);
  }
  void Restart() {
    EXPECT_TRUE(setup.Restart(size));
    model->Reopen(setup.Value(2));
    header_block = setup.HeaderBlock();
    model->Entry(
        UndatedEntry("### Start of work cycle. (" + std::string(8 - Opens().size(), '0') + Opens() + ") ###\n"),
        header_block);
  }
  std::string Opens() const { return std::to_string(setup.Opens()); }
  std::string Differences() const { return Difference(Undated(setup.Ring()), model->Bytes()); }

  const std::uint32_t size;
  RingSetup setup;
  std::string header_block;
  std::optional<RingModel> model;
};

TEST(DebugRing, NewFileHoldsHeaderBlankBlockLogHeaderAndTheStartLine) {
  const Compared ring(kSmall);
  EXPECT_EQ(ring.Differences(), "");
}

TEST(DebugRing, HeaderLinesAreAtTheirOffsets) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSmall));
  const std::string bytes = setup.Ring();
  std::string path = setup.RingPath();
  path.resize(43, ' ');
  EXPECT_EQ(bytes.substr(0, 80), "FilePath                         : " + path + "|\n");
  EXPECT_EQ(bytes.substr(80, 35), "FirstOpen                        : ");
  EXPECT_EQ(bytes.substr(160, 35), "LastOpen                         : ");
  EXPECT_EQ(bytes.substr(240, 80), "NumberOpens    (decimal)         : 0000000000000001                           |\n");
  EXPECT_EQ(bytes.substr(320, 80), "WrapCount      (decimal)         : 0000000000000000                           |\n");
  EXPECT_EQ(bytes.substr(400, 80), "RingBufferSize (decimal)         : 0000000000032768                           |\n");
  EXPECT_EQ(bytes.substr(480, 35), "CurrentWritePosition (dec bytes) : ");
  EXPECT_EQ(bytes.substr(560, 80), std::string(78, '-') + "+\n");
  EXPECT_EQ(bytes.substr(640, 384), std::string(383, ' ') + "\n");
  EXPECT_TRUE(qx::test::StartsWithShape(bytes.substr(515), "9999999999999999 "));
}

TEST(DebugRing, LongPathIsCutTo43Characters) {
  RingSetup setup;
  const std::string path = setup.LogDir().File("a-rather-long-name-for-a-ring-file-of-a-test");
  ASSERT_TRUE(setup.Trace().InitRingBuffer(path.c_str(), kSmall));
  EXPECT_EQ(ReadFile(path).substr(35, 45), path.substr(0, 43) + "|\n");
}

TEST(DebugRing, RandomEntriesAndRestartsAgreeWithThePlainModel) {
  std::mt19937_64 random(qx::test::Seed("DebugRing"));
  Compared ring(kSmall);
  for (int step = 0; step < 250; ++step) {
    if (random() % 25 == 0) {
      ring.Restart();
    } else {
      ring.Print(std::string(random() % (random() % 4 == 0 ? 3276 : 200), static_cast<char>('a' + step % 26)));
    }
    ASSERT_EQ(ring.Differences(), "") << "step " << step;
  }
  EXPECT_GT(ring.setup.Wraps(), 3U);
}

TEST(DebugRing, LargeRingKeepsItsStartAcrossWraps) {
  Compared ring(kLarge);
  const std::size_t start = ring.setup.Position();
  ring.Print("an entry of the start");
  ring.setup.Trace().SetApplInitDone();
  ring.model->Entry(UndatedEntry("### End of initialization. ###\n"), "");
  ring.model->MarkInitEnd();
  ring.header_block = ring.setup.HeaderBlock();  // it marks the end of the start
  const std::string kept = UndatedEntry("an entry of the start\n") + UndatedEntry("### End of initialization. ###\n");
  const std::string text(100000, 't');
  for (int i = 0; i < 50; ++i) ring.Print(text.substr(static_cast<std::size_t>(i)));
  EXPECT_EQ(ring.setup.Wraps(), 2U);
  EXPECT_EQ(ring.Differences(), "");
  EXPECT_EQ(Undated(ring.setup.Ring().substr(start, kept.size())), kept);
}

TEST(DebugRing, StartIsKeptOnlyWithMoreThanOneMebibyteLeft) {
  const auto is_kept = [](std::size_t rest) {
    RingSetup setup;
    EXPECT_TRUE(setup.OpenRing(kLarge));
    setup.FillUpTo(rest);
    EXPECT_EQ(setup.Ring().size() - setup.Position(), rest);
    setup.Trace().SetApplInitDone();
    return setup.Ring().find("End of initialization") != std::string::npos;
  };
  EXPECT_FALSE(is_kept(0x100000));
  EXPECT_TRUE(is_kept(0x100001));
}

TEST(DebugRing, StartThatHasWrappedIsNotKept) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kLarge));
  setup.FillUpTo(100);
  setup.Trace().Print(1, "%s", std::string(100, 'w').c_str());
  ASSERT_EQ(setup.Wraps(), 1U);
  setup.Trace().SetApplInitDone();
  EXPECT_EQ(setup.Ring().find("End of initialization"), std::string::npos);
  ASSERT_TRUE(setup.Restart(kLarge));  // the wrap belongs to the previous run
  setup.Trace().SetApplInitDone();
  EXPECT_NE(setup.Ring().find("End of initialization"), std::string::npos);
}

TEST(DebugRing, WithAnotherTargetTheStartIsNotMarkedInTheRing) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kLarge));
  setup.Trace().SetTarget(CDebug::kTargetLogFile);
  setup.Trace().SetApplInitDone();
  EXPECT_EQ(setup.Ring().find("End of initialization"), std::string::npos);
}

TEST(DebugRing, SecondStartCountsUpdatesLastOpenKeepsFirstOpenAndContinues) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSmall));
  setup.Trace().Print(1, "of the first run");
  setup.Patch(80 + 35, "Sat Jan 31 10:20:30 2026");
  setup.Patch(160 + 35, "Sat Jan 31 10:20:30 2026");
  const std::size_t position = setup.Position();
  ASSERT_TRUE(setup.Restart(kSmall));
  EXPECT_EQ(::fcntl(qx::test::DescriptorOf(setup.RingPath()), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(setup.Opens(), 2U);
  EXPECT_EQ(setup.Value(1), "Sat Jan 31 10:20:30 2026");
  EXPECT_NE(setup.Value(2), "Sat Jan 31 10:20:30 2026");
  const std::string line = UndatedEntry("### Start of work cycle. (00000002) ###\n");
  EXPECT_EQ(Undated(setup.Ring().substr(position, line.size() + 16)), line + std::string(kTerminator));
}

TEST(DebugRing, EntryThatFillsTheRingExactlyDoesNotWrapAndOneByteMoreDoes) {
  for (const std::size_t more : {0U, 1U}) {
    RingSetup setup;
    ASSERT_TRUE(setup.OpenRing(kSmall));
    setup.FillUpTo(200);
    const std::size_t text_bytes = 200 - kTerminator.size() - RingSetup::kHeaderBytes - 1;
    setup.Trace().Print(1, "%s", std::string(text_bytes + more, 'x').c_str());
    EXPECT_EQ(setup.Wraps(), more);
    const std::string end = setup.Ring().substr(kSmall - 200);
    if (more == 0) {
      EXPECT_EQ(end.substr(200 - 16), kTerminator);
    } else {
      EXPECT_EQ(end, std::string(200, '.'));
    }
  }
}

TEST(DebugRing, AfterEveryEntryTheTerminatorIsAtTheWritePosition) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSmall));
  for (int i = 0; i < 250; ++i) {
    setup.Trace().Print(1, "entry %200d", i);
    ASSERT_EQ(setup.Ring().substr(setup.Position(), 16), kTerminator) << i;
  }
  EXPECT_GT(setup.Wraps(), 1U);
}

TEST(DebugRing, TextOf5000CharactersIsWholeInOneMebibyteAndCutInASmallRing) {
  const std::string text(5000, 'x');
  RingSetup large;
  ASSERT_TRUE(large.OpenRing(1U << 20));
  const std::size_t before = large.Position();
  large.Trace().Print(1, "%s", text.c_str());
  EXPECT_EQ(Undated(large.Ring().substr(before, large.Position() - before)), UndatedEntry(text + "\n"));

  RingSetup small;
  ASSERT_TRUE(small.OpenRing(kSmall));
  const std::size_t from = small.Position();
  small.Trace().Print(1, "%s", text.c_str());
  EXPECT_EQ(Undated(small.Ring().substr(from, small.Position() - from)),
            UndatedEntry(text.substr(0, 1024) + "\n## WARNING: TRACE-SIZE TOO BIG: Output Truncated!\n"));
}

// The text of one entry in a small ring.
std::string WrittenText(const std::string& text) {
  RingSetup setup;
  EXPECT_TRUE(setup.OpenRing(kSmall));
  const std::size_t from = setup.Position();
  setup.Trace().Print(1, "\n\n%s", text.c_str());
  const std::string entry = Undated(setup.Ring().substr(from, setup.Position() - from));
  EXPECT_EQ(entry.substr(0, 49), UndatedEntry(""));
  return entry.substr(49);
}

TEST(DebugRing, TextsAroundTheLimitsAreWholeUpToATenthOfTheRing) {
  const std::string text(4000, 'x');
  for (const std::size_t whole : {1023U, 1024U, 1025U, 1026U, 3275U, 3276U}) {
    EXPECT_EQ(WrittenText(text.substr(0, whole)), text.substr(0, whole) + "\n") << whole;
    EXPECT_EQ(WrittenText(text.substr(1, whole - 1) + "\n"), text.substr(1, whole - 1) + "\n") << whole;
  }
  EXPECT_EQ(WrittenText(text.substr(0, 3277)),
            text.substr(0, 1024) + "\n## WARNING: TRACE-SIZE TOO BIG: Output Truncated!\n");
}

TEST(DebugRing, NulEndsALongTextToo) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSmall));
  const std::size_t from = setup.Position();
  const std::string text(1500, 'x');
  setup.Trace().Print(1, "%s%c%s", text.c_str(), 0, text.c_str());
  setup.Trace().Print(1, "ab%c%s", 0, text.c_str());
  EXPECT_EQ(Undated(setup.Ring().substr(from, setup.Position() - from)),
            UndatedEntry(text + "\n") + UndatedEntry("ab\n"));
}

#ifndef QX_ADDRESS_SANITIZER  // its allocator does not fail but ends the process
TEST(DebugRing, LongTextWithoutMemoryIsCutAndMarkedAsCut) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(24U << 20));
  EXPECT_EQ(qx::test::TextOfChild([&]() -> std::string {
              const std::string text(2U << 20, 'x');
              const std::size_t from = setup.Position();
              const rlimit none{1, 1};  // no more memory than is in use now
              ::setrlimit(RLIMIT_AS, &none);
              while (std::malloc(text.size()) != nullptr) continue;  // memory that was free
              setup.Trace().Print(1, "%s", text.c_str());
              char entry[1200] = {};
              const int ring = ::open(setup.RingPath().c_str(), O_RDONLY | O_CLOEXEC);
              const ssize_t got = ::pread(ring, entry, sizeof entry, static_cast<off_t>(from));
              const char* const why =
                  static_cast<const char*>(::memmem(entry, static_cast<std::size_t>(got), "x\n", 2));
              if (why == nullptr || why - entry != 49 + 1023) return "not cut";
              return {why + 1, 56};
            }),
            "\n## ERROR: No memory: Output Truncated!\n## TRACE-END ##\n");
}
#endif

TEST(DebugRing, PrintGoesOnlyToTheRingAndPrintAlwaysToBoth) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSmall));
  const std::size_t from = setup.Position();
  setup.Trace().Print(1, "ring alone");
  setup.Trace().Print(2, "dropped");
  setup.Trace().PrintAlways("both");
  setup.Trace().PrintAlways(9, "both %d", 2);
  setup.Trace().PrintToLogFile("log alone");
  setup.Trace().PrintIt(CDebug::kTargetLogFile, "log, too");
  setup.Trace().PrintIt(CDebug::kTargetRingBuffer, "ring, too");
  setup.Trace().PrintIt(CDebug::kTargetNone, "current target");
  EXPECT_EQ(Undated(setup.Ring().substr(from, setup.Position() - from)),
            UndatedEntry("ring alone\n") + UndatedEntry("both\n") + UndatedEntry("both 2\n") +
                UndatedEntry("ring, too\n") + UndatedEntry("current target\n"));
  EXPECT_EQ(Undated(setup.Log()), UndatedEntry("both\n") + UndatedEntry("both 2\n") + UndatedEntry("log alone\n") +
                                      UndatedEntry("log, too\n"));
}

TEST(DebugRing, CommandLineGoesToTheLogAndToTheRingThatIsTheTarget) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSmall));
  const std::size_t from = setup.Position();
  char program[] = "agent";
  char* argv[] = {program, nullptr};
  setup.Trace().SetMainParams(1, argv);
  const std::string lines = UndatedEntry("QxTrace Command Line Options:\n") + UndatedEntry("argv[0] = \"agent\"\n");
  EXPECT_EQ(Undated(setup.Log()), lines);
  EXPECT_EQ(Undated(setup.Ring().substr(from, setup.Position() - from)), lines);
  setup.Trace().SetTarget(CDebug::kTargetLogFile);
  setup.Trace().SetMainParams(1, argv);
  EXPECT_EQ(Undated(setup.Log()), lines + lines);
  EXPECT_EQ(setup.Position(), from + lines.size());
}

TEST(DebugRing, EmptyNullAndLineFeedFormats) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(kSmall));
  const std::size_t from = setup.Position();
  for (const char* format : {"", "\n", "\n\nabc", static_cast<const char*>(nullptr)}) {
    PrintText(setup.Trace(), format, nullptr);
  }
  EXPECT_EQ(Undated(setup.Ring().substr(from, setup.Position() - from)),
            UndatedEntry("\n") + UndatedEntry("\n") + UndatedEntry("abc\n"));
}

TEST(DebugRing, ErrnoIsKeptAndUsedByPercentMInWrapsAndLongTexts) {
  RingSetup setup;
  errno = ENOTTY;
  ASSERT_TRUE(setup.OpenRing(kSmall));
  EXPECT_EQ(errno, ENOTTY);
  setup.FillUpTo(100);
  errno = ENOTTY;
  PrintText(setup.Trace(), "%s %m", std::string(1500, 'x').c_str());
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_EQ(setup.Wraps(), 1U);
  const std::string end = "x " + std::string(std::strerror(ENOTTY)) + "\n";
  EXPECT_EQ(setup.Ring().substr(setup.Position() - end.size(), end.size()), end);
}

TEST(DebugRing, InitSetsTheRingUpIfTracingIsOnAndASizeIsConfigured) {
  for (const int level : {0, 1}) {
    RingSetup setup;
    setup.SetEnv("TraceFileLimit", "1");
    setup.SetEnv("QX_LOG_RINGBUF_WEIGHT", "1");
    ASSERT_TRUE(setup.InitAtLevel(level));
    setup.Trace().PrintIt(CDebug::kTargetNone, "text");
    EXPECT_EQ(qx::test::Exists(setup.RingPath()), level == 1);
    if (level == 0) continue;
    EXPECT_EQ(setup.Number(5), 256U * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(setup.Ring().size(), setup.Number(5));
    EXPECT_EQ(setup.Log(), "");
  }
}

TEST(DebugRing, HeaderOfTheRingStaysOutOfStandardError) {
  RingSetup setup;
  setup.SetEnv("QX_LOG_NOHDR_TOSDTERR", "0");
  ASSERT_TRUE(setup.Init());
  testing::internal::CaptureStderr();
  ASSERT_TRUE(setup.OpenRing(kSmall));
  setup.FillUpTo(100);
  setup.Trace().Print(1, "%s", std::string(100, 'w').c_str());
  EXPECT_EQ(setup.Wraps(), 1U);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(DebugRing, IsCreatedCloseOnExecWithItsModeLessTheUmask) {
  RingSetup setup;
  const mode_t umask_before = ::umask(027);
  ASSERT_TRUE(setup.OpenRing(kSmall));
  ::umask(umask_before);
  struct stat status {};
  ASSERT_EQ(::stat(setup.RingPath().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, mode_t{0700});
  EXPECT_GE(status.st_blocks * 512, kSmall);
  EXPECT_EQ(::fcntl(qx::test::DescriptorOf(setup.RingPath()), F_GETFD), FD_CLOEXEC);
}

bool IsMapped(const std::string& path) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(path) != std::string::npos) return true;
  }
  return false;
}

TEST(DebugRing, EndOfTheFacilityLeavesNoMappingAndNoDescriptor) {
  std::string path;
  {
    RingSetup setup;
    ASSERT_TRUE(setup.OpenRing(kSmall));
    path = setup.RingPath();
    EXPECT_TRUE(IsMapped(path));
    EXPECT_GE(qx::test::DescriptorOf(path), 0);
    ASSERT_TRUE(setup.Init());
    EXPECT_FALSE(IsMapped(path));
    EXPECT_EQ(qx::test::DescriptorOf(path), -1);
    ASSERT_TRUE(setup.OpenRing(kSmall));
  }
  EXPECT_FALSE(IsMapped(path));
}

TEST(DebugRing, InertInZeroedMemoryAndAfterItsEnd) {
#ifdef QX_ADDRESS_SANITIZER
  GTEST_SKIP() << "the undefined behaviour sanitizer stops every call outside an object's life";
#endif
  const RingSetup setup;
  alignas(CDebug) static unsigned char memory[sizeof(CDebug)];
  CDebug* const debug = reinterpret_cast<CDebug*>(memory);
  debug->PrintIt(CDebug::kTargetRingBuffer, "before");
  new (memory) CDebug;
  ASSERT_TRUE(debug->Init(RingSetup::kAppName));
  ASSERT_TRUE(debug->InitRingBuffer(setup.RingPath().c_str(), kSmall));
  debug->Print(1, "alive");
  debug->CDebug::~CDebug();
  const std::string before = setup.Ring();
  debug->PrintIt(CDebug::kTargetRingBuffer, "after");
  debug->CDebug::PrintAlways("after");
  debug->SetTarget(CDebug::kTargetRingBuffer);
  debug->CDebug::Print(0, "after");
  EXPECT_EQ(setup.Ring(), before);
}

TEST(DebugRing, RingTooSmallForItsHeaderBlockStillWritesEveryEntryWhole) {
  RingSetup setup;
  ASSERT_TRUE(setup.OpenRing(4096));
  for (int i = 0; i < 200; ++i) {
    const std::string text(static_cast<std::size_t>(i * 17 % 1500), 'x');
    setup.Trace().Print(1, "%s", text.c_str());
    const std::string end = text.size() <= 1024 ? text + "\n" : "Output Truncated!\n";
    ASSERT_EQ(setup.Ring().substr(setup.Position() - end.size(), end.size() + 16), end + std::string(kTerminator));
  }
}

}  // namespace
