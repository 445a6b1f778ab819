#include "debug/Debug.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <new>

#include "tests/debug/TraceFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingFileCalls.h"

namespace {

using qx::test::FailingCall;
using qx::test::FileCall;
using qx::test::ReadFile;
using qx::test::SyslogCapture;
using qx::test::TempDir;
using qx::test::TestDebug;
using qx::test::TraceSetup;
using qx::test::WriteFile;
using testing::ElementsAre;
using testing::IsEmpty;

// The formats are arguments of the tests, so the compiler cannot check them.
void PrintText(CDebug& debug, const char* format) { debug.Print(1, format, 0); }

// Counts the writes. No write fails.
const qx::test::FileFault kCountedWrites{.call = FileCall::kWrite, .nth = qx::test::kAlways};

std::string Entry(std::string_view text) { return "S [T] QxTrace       " + std::string(text); }

void CallPrintAlwaysV(CDebug* debug, const char* module, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  debug->PrintAlwaysV(format, args, module);
  va_end(args);
}

void CallClientPrintV(CDebug* debug, const char* module, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  debug->ClientPrintV(format, args, module);
  va_end(args);
}

// The slot of a virtual member function in its class's table, as the C++ ABI of this platform encodes it.
template <typename Member>
std::ptrdiff_t SlotOf(Member member) {
  std::ptrdiff_t words[2];
  static_assert(sizeof words == sizeof member);
  std::memcpy(words, &member, sizeof words);
  return (words[0] & ~std::ptrdiff_t{1}) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

// Until the end of the scope, this process cannot open anything.
class NoMoreDescriptors {
 public:
  NoMoreDescriptors() {
    ::getrlimit(RLIMIT_NOFILE, &kept_);
    const rlimit none{0, kept_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoMoreDescriptors() { ::setrlimit(RLIMIT_NOFILE, &kept_); }

 private:
  rlimit kept_{};
};

TEST(Debug, VirtualOperationsKeepTheirSlots) {
  EXPECT_EQ(SlotOf(&CDebug::IsMaster), 2);  // after the two forms of the destructor
  EXPECT_EQ(SlotOf(&CDebug::Print), 3);
  EXPECT_EQ(SlotOf(static_cast<void (CDebug::*)(const char*, ...)>(&CDebug::PrintAlways)), 4);
  EXPECT_EQ(SlotOf(static_cast<void (CDebug::*)(std::uint32_t, const char*, ...)>(&CDebug::PrintAlways)), 5);
  EXPECT_EQ(SlotOf(&CDebug::PrintAlwaysV), 6);
  EXPECT_EQ(SlotOf(&CDebug::ClientPrintV), 7);
}

TEST(Debug, IsAlwaysTheMasterOfItsTrace) {
  TraceSetup setup;
  EXPECT_TRUE(setup.Trace().IsMaster());
}

TEST(Debug, ConstructedInactiveAndSilent) {
  TraceSetup setup;
  EXPECT_FALSE(setup.Trace().IsActive());
  setup.Trace().Print(0, "nothing");
  setup.Trace().PrintAlways("nothing");
  setup.Trace().SetApplInitDone();
  EXPECT_TRUE(std::filesystem::is_empty(setup.LogDir().Path()));
}

TEST(Debug, InertInZeroedMemoryAndAfterItsEnd) {
#ifdef QX_ADDRESS_SANITIZER
  GTEST_SKIP() << "the undefined behaviour sanitizer stops every call outside an object's life";
#endif
  TraceSetup setup;
  setup.SetEnv("QX_LOG_DEBUG_LEVEL", "3");
  alignas(CDebug) static unsigned char memory[sizeof(CDebug)];
  CDebug* const debug = reinterpret_cast<CDebug*>(memory);
  EXPECT_FALSE(debug->IsActive());
  debug->CDebug::Print(1, "before");
  debug->CDebug::PrintAlways("before");

  new (memory) CDebug;
  ASSERT_TRUE(debug->Init(TraceSetup::kAppName));
  EXPECT_TRUE(debug->IsActive());
  debug->Print(1, "alive");
  debug->CDebug::~CDebug();

  EXPECT_FALSE(debug->IsActive());
  debug->CDebug::Print(1, "after");
  debug->CDebug::PrintAlways("after");
  EXPECT_EQ(setup.PlainLog(), Entry("alive\n"));
}

// Runs in a child, because a failure would end the program.
TEST(Debug, SettingsFilesAreNotCheckedAfterItsEnd) {
#ifdef QX_ADDRESS_SANITIZER
  GTEST_SKIP() << "the undefined behaviour sanitizer stops every call outside an object's life";
#endif
  TraceSetup setup;
  setup.WriteIni("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=10\n[EndOfFile]\n");
  setup.WriteIni("qxtrace.ini", "[QxTrace]\nFileDebugLevel=1\n[EndOfFile]\n");
  const std::string directory = setup.IniPath("");
  const std::string outcome = qx::test::TextOfChild([&]() -> std::string {
    alignas(TestDebug) static unsigned char memory[sizeof(TestDebug)];
    auto* const debug = new (memory) TestDebug(directory.c_str());
    if (!debug->Init(TraceSetup::kAppName)) return "not started";
    debug->CheckDynamicUpdate(std::time(nullptr) + 1000);  // at the next call the clock has gone back
    debug->~TestDebug();
    debug->CDebug::Print(1, "after");
    return "alive";
  });
  EXPECT_EQ(outcome, "alive");
  EXPECT_EQ(setup.PlainLog(), "");
}

TEST(Debug, EntriesAboveTheLevelAreDropped) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(2));
  setup.Trace().Print(0, "zero");
  setup.Trace().Print(1, "one");
  setup.Trace().Print(2, "two");
  setup.Trace().Print(3, "three");
  EXPECT_EQ(setup.PlainLog(), Entry("zero\n") + Entry("one\n") + Entry("two\n"));
}

TEST(Debug, AtLevelZeroTheLogIsTheTargetAndOnlyPrintAlwaysWrites) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(0));
  EXPECT_FALSE(setup.Trace().IsActive());
  setup.Trace().Print(1, "dropped");
  setup.Trace().PrintAlways("always %d", 1);
  setup.Trace().PrintAlways(9, "with level %d", 9);
  setup.Trace().PrintIt(CDebug::kTargetNone, "current target");
  EXPECT_EQ(setup.PlainLog(), Entry("always 1\n") + Entry("with level 9\n") + Entry("current target\n"));
}

TEST(Debug, LeadingLineFeedsOfTheFormatAreSkippedAndThoseOfTheTextStay) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  setup.Trace().Print(1, "\n\nabc");
  setup.Trace().Print(1, "\n%s", "\nregistry text\n");
  setup.Trace().Print(1, "a\n\n");
  EXPECT_EQ(setup.PlainLog(), Entry("abc\n") + Entry("\nregistry text\n") + Entry("a\n\n"));
}

TEST(Debug, FormatOfLineFeedsAloneIsUsedAsItIs) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  setup.Trace().Print(1, "\n");
  setup.Trace().Print(1, "\n\n");
  EXPECT_EQ(setup.PlainLog(), Entry("\n") + Entry("\n\n"));
}

TEST(Debug, EmptyAndNullFormats) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  PrintText(setup.Trace(), "");
  PrintText(setup.Trace(), nullptr);
  EXPECT_EQ(setup.PlainLog(), Entry("\n"));
}

TEST(Debug, TextIsCutAfter1024CharactersAndStillEndsItsLine) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  const std::string text(1024, 'x');
  setup.Trace().Print(1, "%s", text.c_str());
  setup.Trace().Print(1, "%s", (text + "y").c_str());
  setup.Trace().Print(1, "%s", (text.substr(1) + "\n").c_str());
  setup.Trace().Print(1, "%s", (text + "\n").c_str());
  EXPECT_EQ(setup.PlainLog(),
            Entry(text + "\n") + Entry(text + "\n") + Entry(text.substr(1) + "\n") + Entry(text + "\n"));
}

TEST(Debug, NulInTheTextEndsTheEntryWithALineFeed) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  setup.Trace().Print(1, "abc%cdef", 0);
  EXPECT_EQ(setup.PlainLog(), Entry("abc\n"));
}

TEST(Debug, TextThatCannotBeFormattedLeavesAnEmptyEntry) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  const wchar_t not_a_character[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
  setup.Trace().Print(1, "abc %ls", not_a_character);
  EXPECT_EQ(setup.PlainLog(), Entry("\n"));
}

TEST(Debug, PointersPrintTheWayCallersWriteThem) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  setup.Trace().Print(1, "0x%p", reinterpret_cast<void*>(0xABC));
  setup.Trace().Print(1, "0x%p", static_cast<void*>(nullptr));
  EXPECT_EQ(setup.PlainLog(), Entry("0x0xabc\n") + Entry("0x(nil)\n"));
}

TEST(Debug, EveryCallKeepsErrnoAndPercentMShowsIt) {
  TraceSetup setup;
  setup.WriteIni("app.ini", "[QxTrace]\nMemoryTracesFlag=1\n[EndOfFile]\n");
  setup.SetEnv("QX_LOG_DYNAMIC_UPDATE", "1");
  errno = ENOTTY;
  ASSERT_TRUE(setup.InitAtLevel(1));
  EXPECT_EQ(errno, ENOTTY);
  std::filesystem::remove(setup.IniPath("app.ini"));
  setup.Trace().CheckDynamicUpdate(std::time(nullptr) + 10);
  EXPECT_EQ(errno, ENOTTY);
  {
    const NoMoreDescriptors limit;  // the entry's own header now hits an error: the resident size cannot be read
    errno = ENOTTY;
    PrintText(setup.Trace(), "\nerror: %m");
    EXPECT_EQ(errno, ENOTTY);
  }
  EXPECT_EQ(setup.PlainLog(), "S [T]        0 KB !QxTrace       error: " + std::string(std::strerror(ENOTTY)) + "\n");

  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(::dup2(full, qx::test::DescriptorOf(setup.LogPath())), 0);
  ::close(full);
  errno = ENOTTY;
  setup.Trace().Print(1, "lost");
  EXPECT_EQ(errno, ENOTTY);
}

TEST(Debug, ForceMaxDebugSilencesAndRestoresTheConfiguredLevel) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(2));
  EXPECT_TRUE(setup.Trace().ForceMaxDebug(false));
  EXPECT_FALSE(setup.Trace().IsActive());
  setup.Trace().Print(1, "silenced");
  EXPECT_TRUE(setup.Trace().ForceMaxDebug(true));
  EXPECT_TRUE(setup.Trace().IsActive());
  setup.Trace().Print(2, "two");
  setup.Trace().Print(3, "three");
  EXPECT_EQ(setup.PlainLog(), Entry("two\n"));
}

TEST(Debug, ModuleColumnIsTheGivenNameElseTheApplication) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(0));
  CallPrintAlwaysV(&setup.Trace(), "Mod", "\nwith %s", "module");
  CallPrintAlwaysV(&setup.Trace(), nullptr, "without");
  CallClientPrintV(&setup.Trace(), "ALongModuleName", "long");
  EXPECT_EQ(setup.PlainLog(),
            "S [T] Mod           with module\n" + Entry("without\n") + "S [T] ALongModuleName long\n");
}

TEST(Debug, HeaderIsCutTo128Characters) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(0));
  const std::string name(200, 'N');
  CallPrintAlwaysV(&setup.Trace(), name.c_str(), "text");
  EXPECT_EQ(setup.PlainLog(), "S [T] " + std::string(128 - 35, 'N') + "text\n");
}

TEST(Debug, ClientPrintAndPrintItFollowTheTarget) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  setup.Trace().SetTarget(CDebug::kTargetNone);
  setup.Trace().Print(1, "nowhere");
  setup.Trace().PrintIt(CDebug::kTargetNone, "nowhere");
  CallClientPrintV(&setup.Trace(), nullptr, "nowhere");
  setup.Trace().PrintIt(CDebug::kTargetLogFile, "it");
  setup.Trace().PrintAlways("always");
  setup.Trace().PrintToLogFile("\nto the log %d", 7);
  EXPECT_EQ(setup.PlainLog(), Entry("it\n") + Entry("always\n") + Entry("to the log 7\n"));
}

TEST(Debug, InitTruncatesTheLogOfThePreviousRun) {
  TraceSetup setup;
  WriteFile(setup.LogPath(), "the run before\n");
  ASSERT_TRUE(setup.InitAtLevel(0));
  EXPECT_EQ(setup.Log(), "");
}

TEST(Debug, SecondInitClosesTheEarlierLogAndStartsAgain) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(3));
  setup.Trace().Print(3, "first");
  const TempDir second;
  setup.SetEnv("QX_LOG_RINGBUF_DIR", second.Path().c_str());
  setup.Trace().ForceMaxDebug(false);
  ASSERT_TRUE(setup.InitAtLevel(1));
  EXPECT_EQ(qx::test::DescriptorOf(setup.LogPath()), -1);
  setup.Trace().Print(1, "second");
  setup.Trace().Print(2, "dropped");
  EXPECT_EQ(setup.PlainLog(), Entry("first\n"));
  EXPECT_EQ(qx::test::WithoutStamps(ReadFile(second.File("log.qxtrace"))), Entry("second\n"));
}

TEST(Debug, InitWithoutANameFailsAndIsReported) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(3));
  const SyslogCapture syslog;
  EXPECT_FALSE(setup.Trace().Init(nullptr));
  EXPECT_FALSE(setup.Trace().IsActive());
  setup.Trace().Print(0, "silent");
  setup.Trace().PrintAlways("silent");
  setup.Trace().ForceMaxDebug(true);
  setup.Trace().Print(1, "silent");
  EXPECT_EQ(setup.Log(), "");
  EXPECT_THAT(syslog.Messages(), ElementsAre("3 ERROR: Error during initialization of the CDebug instance.\n"));
}

TEST(Debug, LogThatCannotBeOpenedLeavesTheFacilityActiveWithoutIt) {
  TraceSetup setup;
  const std::string directory = setup.LogDir().File("missing");
  setup.SetEnv("QX_LOG_RINGBUF_DIR", directory.c_str());
  const SyslogCapture syslog;
  EXPECT_TRUE(setup.InitAtLevel(3));
  EXPECT_TRUE(setup.Trace().IsActive());
  setup.Trace().Print(1, "nowhere");
  setup.Trace().PrintAlways("nowhere");
  setup.Trace().SetApplInitDone();
  EXPECT_THAT(syslog.Messages(),
              ElementsAre("3 ERROR: Error during opening " + directory + "/log.qxtrace --> proceed without it\n"));
}

TEST(Debug, MainParamsAreKeptAndTracedOnceTheLogIsOpen) {
  TraceSetup setup;
  char program[] = "agent";
  char option[] = "-v 100%d";
  char* argv[] = {program, option, nullptr};
  setup.Trace().SetMainParams(2, argv);  // before Init: kept, because there is no target yet
  ASSERT_TRUE(setup.InitAtLevel(0));
  setup.Trace().SetMainParams(2, argv);
  setup.Trace().SetMainParams(0, argv);
  EXPECT_EQ(setup.PlainLog(), Entry("QxTrace Command Line Options:\n") + Entry("argv[0] = \"agent\"\n") +
                                  Entry("argv[1] = \"-v 100%d\"\n"));
}

TEST(Debug, EachEntryIsOneWriteThatIsInTheFileAtOnce) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  const FailingCall writes(kCountedWrites);
  for (int i = 0; i < 5; ++i) setup.Trace().Print(1, "entry %d", i);
  EXPECT_EQ(writes.Calls(), 5);
  EXPECT_THAT(setup.PlainLog(), testing::EndsWith("entry 4\n"));
}

TEST(Debug, DroppedEntriesCostNoSystemCallOnTheLog) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(1));
  const FailingCall writes(kCountedWrites);
  setup.Trace().Print(2, "dropped");
  EXPECT_EQ(writes.Calls(), 0);
}

TEST(Debug, TraceMacroDoesNotEvaluateItsArgumentsWhileOff) {
  const TraceSetup setup;  // keeps the environment clean; the program's own facility is off
  int evaluations = 0;
  QX_TRACE(1, "%d", ++evaluations);
  EXPECT_EQ(evaluations, 0);
  const qx::test::TraceCapture capture(1);
  QX_TRACE(1, "\n%d", ++evaluations);
  EXPECT_EQ(evaluations, 1);
  EXPECT_EQ(capture.Text(), "1\n");
}

TEST(Debug, CaptureHelperReturnsTheTextsWithoutHeaders) {
  const qx::test::TraceCapture capture(3);
  QX_TRACE(1, "\nWCSP_QX GetReports  : one");
  QX_TRACE(3, "\n%s", "two\nlines");
  QX_TRACE(4, "\ndropped");
  QX_TRACE(2, "\n%s", "\nregistry text\n");
  EXPECT_THAT(capture.Entries(), ElementsAre("WCSP_QX GetReports  : one", "two\nlines", "\nregistry text"));
}

TEST(Debug, SetEntryHeaderWritesTheHeaderAlone) {
  TraceSetup setup;
  ASSERT_TRUE(setup.InitAtLevel(0));
  char buffer[129];
  EXPECT_EQ(setup.Trace().SetEntryHeader(buffer, sizeof buffer, nullptr), TraceSetup::kHeaderBytes);
  EXPECT_EQ(qx::test::WithoutStamps(buffer), Entry(""));
  EXPECT_EQ(setup.Trace().SetEntryHeader(buffer, 11, "Mod"), 10U);
  EXPECT_EQ(std::strlen(buffer), 10U);
}

TEST(Debug, MemoryTracesShowTheResidentSize) {
  TraceSetup setup;
  setup.WriteIni("app.ini", "[QxTrace]\nFileDebugLevel=1\nMemoryTracesFlag=1\n[EndOfFile]\n");
  ASSERT_TRUE(setup.Init());
  setup.Trace().Print(1, "text");
  const std::string log = setup.PlainLog();
  ASSERT_EQ(log.size(), std::string("S [T]    12345 KB !QxTrace       text\n").size());
  EXPECT_EQ(log.substr(0, 6), "S [T] ");
  EXPECT_EQ(log.substr(14), " KB !QxTrace       text\n");
  EXPECT_GT(std::stol(log.substr(6, 8)), 500);  // kilobytes
}

TEST(Debug, VariableNameGetsTheApplicationInUpperCaseWithinItsBuffer) {
  const auto built = [](std::size_t size, const char* app_name) {
    char buffer[16] = "WEIGHT";
    std::memset(buffer + 7, '#', sizeof buffer - 7);
    CDebug::BuildAppVarName(buffer, size, app_name);
    return std::string(buffer);
  };
  EXPECT_EQ(built(16, "QxTrace"), "WEIGHT_QXTRACE");
  EXPECT_EQ(built(15, "QxTrace"), "WEIGHT_QXTRACE");
  EXPECT_EQ(built(14, "QxTrace"), "WEIGHT_QXTRAC");
  EXPECT_EQ(built(8, "QxTrace"), "WEIGHT_");
  EXPECT_EQ(built(7, "QxTrace"), "WEIGHT");
  EXPECT_EQ(built(4, "QxTrace"), "WEI");
  EXPECT_EQ(built(1, "QxTrace"), "");
  EXPECT_EQ(built(0, "QxTrace"), "WEIGHT");
  EXPECT_EQ(built(16, ""), "WEIGHT");
  EXPECT_EQ(built(16, nullptr), "WEIGHT");
}

TEST(Debug, LowerCasingTouchesAsciiLettersOnly) {
  char text[] = "QXRemConXfer_9\xC4";
  CDebug::StringToLower(text);
  EXPECT_STREQ(text, "qxremconxfer_9\xC4");
  CDebug::StringToLower(nullptr);
}

}  // namespace
