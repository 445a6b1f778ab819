// Tests the source of every setting, and which settings change when the files are checked while the program runs.
#include "debug/DebugTraceConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/debug/TraceFixture.h"
#include "tests/support/PrivateMounts.h"

namespace {

using qx::test::ReadFile;
using qx::test::SyslogCapture;
using qx::test::TempDir;
using qx::test::TestDebug;
using qx::test::TraceSetup;
using qx::test::WriteFile;

constexpr std::uint32_t kUnset = 0xFFFFFFFF;

std::string AppIni(std::string_view lines) { return "[QxTrace]\n" + std::string(lines) + TraceSetup::kIniEnd; }

// The path of the log, taken from the message that the log cannot be opened. The tests name directories in which no
// file can be created, so they leave no files.
std::string LogPathShown(TraceSetup& setup) {
  const SyslogCapture syslog;
  EXPECT_TRUE(setup.Init());
  const std::vector<std::string> messages = syslog.Messages();
  if (messages.size() != 1) return "(opened)";
  const std::string prefix = "3 ERROR: Error during opening ";
  const std::string suffix = " --> proceed without it\n";
  return messages[0].substr(prefix.size(), messages[0].size() - prefix.size() - suffix.size());
}

TEST(DebugTraceConfig, NothingIsSetBeforeTheFirstInit) {
  TraceSetup setup;
  const auto& settings = setup.Trace().Settings();
  EXPECT_EQ(settings.update_interval, kUnset);
  EXPECT_EQ(settings.level, kUnset);
  EXPECT_EQ(settings.trace_flags, kUnset);
  EXPECT_EQ(settings.ring_factor, kUnset);
  EXPECT_EQ(settings.ring_weight, kUnset);
  EXPECT_EQ(settings.no_header_to_stderr, kUnset);
  EXPECT_EQ(settings.log_max_size, 51200U);
}

TEST(DebugTraceConfig, DefaultsWithoutFilesAndEnvironment) {
  TraceSetup setup;
  ASSERT_TRUE(setup.Init());
  const auto& settings = setup.Trace().Settings();
  EXPECT_EQ(settings.update_interval, 0U);
  EXPECT_EQ(settings.level, 0U);
  EXPECT_EQ(settings.trace_flags, 0U);
  EXPECT_EQ(settings.ring_factor, 0U);
  EXPECT_EQ(settings.ring_weight, 0U);
  EXPECT_EQ(settings.no_header_to_stderr, 1U);
  EXPECT_EQ(settings.memory_traces, 0U);
  EXPECT_EQ(settings.log_max_size, 51200U);
  EXPECT_EQ(setup.Trace().FileValues().level, kUnset);
}

TEST(DebugTraceConfig, EverySettingWithAKeyIsReadFromTheFiles) {
  TraceSetup setup;
  setup.WriteIni("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=30\n[EndOfFile]");
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=3\nTraceFlags=0x80\nRingBufferSizeFactor=1\nRingBufferSizeWeight=4\n"
                                   "NoHeaderToStderr=7\nMemoryTracesFlag=1\nRingBufferDirectory=/from/file\n"));
  ASSERT_TRUE(setup.Init());
  const auto& settings = setup.Trace().Settings();
  EXPECT_EQ(settings.update_interval, 30U);
  EXPECT_EQ(settings.level, 3U);
  EXPECT_EQ(settings.trace_flags, 0x80U);
  EXPECT_EQ(settings.ring_factor, 1U);
  EXPECT_EQ(settings.ring_weight, 4U);
  EXPECT_EQ(settings.no_header_to_stderr, 7U);
  EXPECT_EQ(settings.memory_traces, 1U);
  EXPECT_STREQ(setup.Trace().FileValues().ring_directory, "/from/file");
  EXPECT_STREQ(settings.trace_directory, setup.LogDir().Path().c_str());  // the value of the environment
}

TEST(DebugTraceConfig, EnvironmentOverridesTheFiles) {
  TraceSetup setup;
  setup.WriteIni("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=30\n[EndOfFile]");
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=0x10\nRingBufferSizeFactor=1\nRingBufferSizeWeight=4\n"
                                   "NoHeaderToStderr=0\n"));
  setup.SetEnv("QX_LOG_DYNAMIC_UPDATE", "5");
  setup.SetEnv("QX_LOG_DEBUG_LEVEL", "3");
  setup.SetEnv("TraceFileLimit", "2");
  setup.SetEnv("QX_LOG_RINGBUF_WEIGHT", "9");
  setup.SetEnv("QX_LOG_NOHDR_TOSDTERR", "1");
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "1000");
  ASSERT_TRUE(setup.Init());
  const auto& settings = setup.Trace().Settings();
  EXPECT_EQ(settings.update_interval, 5U);
  EXPECT_EQ(settings.level, 3U);
  EXPECT_EQ(settings.ring_factor, 2U);
  EXPECT_EQ(settings.ring_weight, 9U);
  EXPECT_EQ(settings.no_header_to_stderr, 1U);
  EXPECT_EQ(settings.log_max_size, 1000U);
  EXPECT_EQ(setup.Trace().FileValues().level, 16U);
}

TEST(DebugTraceConfig, HexadecimalLevelIsReadInTheFileButNotInTheEnvironment) {
  TraceSetup setup;
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=0x10\n"));
  ASSERT_TRUE(setup.Init());
  EXPECT_EQ(setup.Trace().Settings().level, 16U);
  EXPECT_TRUE(setup.Trace().IsActive());
  setup.SetEnv("QX_LOG_DEBUG_LEVEL", "0x10");
  ASSERT_TRUE(setup.Init());
  EXPECT_EQ(setup.Trace().Settings().level, 0U);
  EXPECT_FALSE(setup.Trace().IsActive());
}

TEST(DebugTraceConfig, EnvironmentValueOfMinusOneAndTheEmptyTextCountAsSet) {
  TraceSetup setup;
  setup.WriteIni("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=30\n[EndOfFile]");
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=3\nNoHeaderToStderr=1\n"));
  setup.SetEnv("QX_LOG_DEBUG_LEVEL", "-1");
  setup.SetEnv("QX_LOG_DYNAMIC_UPDATE", "");
  setup.SetEnv("QX_LOG_NOHDR_TOSDTERR", "");
  ASSERT_TRUE(setup.Init());
  const auto& settings = setup.Trace().Settings();
  EXPECT_EQ(settings.level, 0xFFFFFFFFU);
  EXPECT_EQ(settings.update_interval, 0U);
  EXPECT_EQ(settings.no_header_to_stderr, 0U);
  setup.SetEnv("QX_LOG_DEBUG_LEVEL", "");
  ASSERT_TRUE(setup.Init());
  EXPECT_EQ(settings.level, 0U);
}

TEST(DebugTraceConfig, FileValueOfAllOnesIsTheSameAsAMissingKey) {
  TraceSetup setup;
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=-1\nNoHeaderToStderr=0xFFFFFFFF\n"));
  ASSERT_TRUE(setup.Init());
  EXPECT_EQ(setup.Trace().Settings().level, 0U);
  EXPECT_EQ(setup.Trace().Settings().no_header_to_stderr, 1U);
}

TEST(DebugTraceConfig, RingBufferDirectoryVariableNamesTheLogsDirectory) {
  TraceSetup setup;
  setup.WriteIni("app.ini", AppIni("RingBufferDirectory=/missing/file\n"));
  setup.SetEnv("QX_LOG_FILE_DIR", "/missing/a");
  setup.SetEnv("QX_LOG_RINGBUF_DIR", "/missing/b");
  EXPECT_EQ(LogPathShown(setup), "/missing/b/log.qxtrace");
}

TEST(DebugTraceConfig, QuirkLogDirectoryVariableHasNoLastingEffect) {
  TraceSetup setup;
  setup.WriteIni("app.ini", AppIni("RingBufferDirectory=/missing/file\n"));
  setup.SetEnv("QX_LOG_FILE_DIR", "/missing/a");
  setup.SetEnv("QX_LOG_RINGBUF_DIR", nullptr);
  EXPECT_EQ(LogPathShown(setup), "/missing/file/log.qxtrace");
}

TEST(DebugTraceConfig, DirectoryIsThatOfTheFileOrTheDefault) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_RINGBUF_DIR", nullptr);
  setup.WriteIni("app.ini", AppIni("RingBufferDirectory=/missing/file\n"));
  EXPECT_EQ(LogPathShown(setup), "/missing/file/log.qxtrace");
  // The default directory may exist on this machine, so the setting is checked and nothing is opened.
  class Settings : public CDebugTraceConfig {
   public:
    Settings() { ApplySources(); }
    const char* Directory() const { return settings_.trace_directory; }
  };
  EXPECT_STREQ(Settings().Directory(), "/var/log/brollan");
}

TEST(DebugTraceConfig, DirectoryVariableSetToTheEmptyTextCountsAsSet) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_RINGBUF_DIR", "");
  class Settings : public CDebugTraceConfig {
   public:
    Settings() { ApplySources(); }
    const char* Directory() const { return settings_.trace_directory; }
  };
  EXPECT_STREQ(Settings().Directory(), "");
}

TEST(DebugTraceConfig, DirectoryIsCutTo255Characters) {
  TraceSetup setup;
  const std::string directory = "/" + std::string(300, 'd');
  setup.SetEnv("QX_LOG_RINGBUF_DIR", directory.c_str());
  const SyslogCapture syslog;
  ASSERT_TRUE(setup.Init());
  EXPECT_EQ(setup.Trace().Settings().trace_directory, directory.substr(0, 255));
}

TEST(DebugTraceConfig, GlobalFileWithoutAnEndIsIgnoredEntirely) {
  TraceSetup setup;
  setup.WriteIni("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=30\n[QxTrace]\nFileDebugLevel=3\n");
  ASSERT_TRUE(setup.Init());
  EXPECT_EQ(setup.Trace().Settings().update_interval, 0U);
  EXPECT_EQ(setup.Trace().Settings().level, 0U);
}

TEST(DebugTraceConfig, ApplicationSectionMayBeInTheGlobalFile) {
  TraceSetup setup;
  setup.WriteIni("global_trace.ini",
                 "[GlobalDebugSettings]\nDynamicUpdate=30\n[QXTRACE]\nFileDebugLevel=3\n[EndOfFile]");
  ASSERT_TRUE(setup.Init());
  EXPECT_EQ(setup.Trace().Settings().update_interval, 30U);
  EXPECT_EQ(setup.Trace().Settings().level, 3U);
}

TEST(DebugTraceConfig, FirstFileInByteOrderWithTheSectionIsUsed) {
  TraceSetup setup;
  setup.WriteIni("a.ini", "[Other]\nFileDebugLevel=1\n[EndOfFile]");
  setup.WriteIni("b.ini", "[QxTrace]\nFileDebugLevel=2\n");  // incomplete
  setup.WriteIni("c.txt", AppIni("FileDebugLevel=3\n"));
  setup.WriteIni("Z.ini.bak", AppIni("FileDebugLevel=4\n"));  // capitals come before small letters
  setup.WriteIni("d.ini", AppIni("FileDebugLevel=5\nTraceFlags=6\n"));
  ASSERT_TRUE(setup.Init());
  EXPECT_EQ(setup.Trace().Settings().level, 4U);
  EXPECT_EQ(setup.Trace().Settings().trace_flags, 0U);
}

TEST(DebugTraceConfig, BadFilesNextToTheGoodOneAreIgnored) {
  TraceSetup setup;
  std::filesystem::create_directory(setup.IniPath("a.ini"));
  ASSERT_EQ(::mkfifo(setup.IniPath("b.ini").c_str(), 0600), 0);
  std::filesystem::create_symlink("nowhere", setup.IniPath("c.ini"));
  WriteFile(setup.IniPath("d.ini"), std::string(1000, '\0') + "[");
  setup.WriteIni("e.ini", AppIni("FileDebugLevel=5\n"));
  ASSERT_TRUE(setup.Init());
  EXPECT_EQ(setup.Trace().Settings().level, 5U);
}

TEST(DebugTraceConfig, MissingDirectoryLeavesEnvironmentAndDefaults) {
  TraceSetup setup;
  TestDebug debug("/missing/directory");
  setup.SetEnv("QX_LOG_DEBUG_LEVEL", "2");
  ASSERT_TRUE(debug.Init("QxTrace"));
  EXPECT_EQ(debug.Settings().level, 2U);
  debug.CheckDynamicUpdate(std::time(nullptr) + 100);
  EXPECT_EQ(debug.Settings().level, 2U);
}

TEST(DebugTraceConfig, WeightVariableOfTheApplicationOverridesTheGeneralOne) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_RINGBUF_WEIGHT", "9");
  setup.SetEnv("QX_LOG_RINGBUF_WEIGHT_QXTRACE", "3");
  ASSERT_TRUE(setup.Init());
  EXPECT_EQ(setup.Trace().Settings().ring_weight, 3U);
}

// --- a check of the files while the program runs ----------------------------------------------------------------

TEST(DebugTraceConfig, DynamicUpdateTakesLevelFlagsAndMemoryTracesOfANewerFile) {
  TraceSetup setup;
  setup.WriteIni("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=10\n[EndOfFile]");
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=0\nRingBufferSizeWeight=1\n"));
  ASSERT_TRUE(setup.Init());
  const std::time_t start = std::time(nullptr);
  EXPECT_FALSE(setup.Trace().IsActive());

  setup.WriteIni("app.ini", AppIni("FileDebugLevel=4\nTraceFlags=2\nMemoryTracesFlag=1\nRingBufferSizeWeight=5\n"));
  setup.Trace().CheckDynamicUpdate(start + 5);
  EXPECT_FALSE(setup.Trace().IsActive());  // not yet
  setup.Trace().CheckDynamicUpdate(start + 20);
  EXPECT_TRUE(setup.Trace().IsActive());
  EXPECT_TRUE(setup.Trace().IsActive(4));
  EXPECT_FALSE(setup.Trace().IsActive(5));
  EXPECT_EQ(setup.Trace().FileValues().level, 4U);
  EXPECT_EQ(setup.Trace().Settings().trace_flags, 2U);
  EXPECT_EQ(setup.Trace().Settings().memory_traces, 1U);
  EXPECT_EQ(setup.Trace().Settings().ring_weight, 1U);  // fixed at the start
}

TEST(DebugTraceConfig, DynamicUpdateOverridesTheEnvironment) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_DYNAMIC_UPDATE", "10");
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=1\n"));
  ASSERT_TRUE(setup.InitAtLevel(5));
  const std::time_t start = std::time(nullptr);
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=2\n"));
  setup.Trace().CheckDynamicUpdate(start + 20);
  EXPECT_TRUE(setup.Trace().IsActive(2));
  EXPECT_FALSE(setup.Trace().IsActive(3));
  setup.Trace().ForceMaxDebug(false);
  setup.Trace().ForceMaxDebug(true);  // the saved level is the new one
  EXPECT_FALSE(setup.Trace().IsActive(3));
}

TEST(DebugTraceConfig, WithoutAnIntervalNothingIsChecked) {
  TraceSetup setup;
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=1\n"));
  ASSERT_TRUE(setup.Init());
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=2\n"));
  setup.Trace().CheckDynamicUpdate(std::time(nullptr) + 100000);
  EXPECT_FALSE(setup.Trace().IsActive(2));
}

TEST(DebugTraceConfig, CheckIsDueAfterTheIntervalOrWhenTheClockWentBack) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_DYNAMIC_UPDATE", "10");
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=1\n"));
  ASSERT_TRUE(setup.Init());
  const std::time_t start = std::time(nullptr) + 100;
  setup.Trace().CheckDynamicUpdate(start);  // checks, and counts from here

  setup.WriteIni("app.ini", AppIni("FileDebugLevel=2\n"));
  setup.Trace().CheckDynamicUpdate(start + 9);
  EXPECT_FALSE(setup.Trace().IsActive(2));
  setup.Trace().CheckDynamicUpdate(start + 10);
  EXPECT_TRUE(setup.Trace().IsActive(2));

  setup.WriteIni("app.ini", AppIni("FileDebugLevel=3\n"));
  setup.Trace().CheckDynamicUpdate(start + 9);
  EXPECT_TRUE(setup.Trace().IsActive(3));
}

TEST(DebugTraceConfig, MissingIntervalInTheGlobalFileKeepsTheOldOne) {
  TraceSetup setup;
  setup.WriteIni("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=10\n[EndOfFile]");
  ASSERT_TRUE(setup.Init());
  std::time_t now = std::time(nullptr);
  setup.WriteIni("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=20\n[EndOfFile]");
  setup.Trace().CheckDynamicUpdate(now += 1000);
  EXPECT_EQ(setup.Trace().Settings().update_interval, 20U);
  setup.WriteIni("global_trace.ini", "[GlobalDebugSettings]\n[EndOfFile]");
  setup.Trace().CheckDynamicUpdate(now += 1000);
  EXPECT_EQ(setup.Trace().Settings().update_interval, 20U);
  setup.WriteIni("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=30\n");  // incomplete
  setup.Trace().CheckDynamicUpdate(now += 1000);
  EXPECT_EQ(setup.Trace().Settings().update_interval, 20U);
  setup.WriteIni("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=0\n[EndOfFile]");
  setup.Trace().CheckDynamicUpdate(now += 1000);
  EXPECT_EQ(setup.Trace().Settings().update_interval, 0U);
}

TEST(DebugTraceConfig, RemovedOrIncompleteFilesKeepTheSettings) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_DYNAMIC_UPDATE", "10");
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=3\nTraceFlags=1\n"));
  ASSERT_TRUE(setup.Init());
  std::time_t now = std::time(nullptr);
  const auto level_is_still_three = [&] {
    setup.Trace().CheckDynamicUpdate(now += 1000);
    return setup.Trace().IsActive(3) && !setup.Trace().IsActive(4) && setup.Trace().Settings().trace_flags == 1;
  };
  std::filesystem::remove(setup.IniPath("app.ini"));
  EXPECT_TRUE(level_is_still_three());
  setup.WriteIni("app.ini", "[QxTrace]\nFileDebugLevel=5\n");
  EXPECT_TRUE(level_is_still_three());
  setup.WriteIni("app.ini", "");
  EXPECT_TRUE(level_is_still_three());
  setup.WriteIni("app.ini", "[Other]\nFileDebugLevel=5\n[EndOfFile]");
  EXPECT_TRUE(level_is_still_three());
  setup.WriteIni("app.ini", AppIni(""));
  EXPECT_TRUE(level_is_still_three());
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=-1\nTraceFlags=-1\n"));
  EXPECT_TRUE(level_is_still_three());
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=5\n"));
  EXPECT_FALSE(level_is_still_three());
  EXPECT_TRUE(setup.Trace().IsActive(5));
}

TEST(DebugTraceConfig, ForcedOffStaysOffAndReturnsAtTheNewLevel) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_DYNAMIC_UPDATE", "10");
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=3\n"));
  ASSERT_TRUE(setup.Init());
  setup.Trace().ForceMaxDebug(false);
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=5\n"));
  setup.Trace().CheckDynamicUpdate(std::time(nullptr) + 20);
  EXPECT_FALSE(setup.Trace().IsActive());
  setup.Trace().ForceMaxDebug(true);
  EXPECT_TRUE(setup.Trace().IsActive(5));
}

TEST(DebugTraceConfig, SecondInitEndsForcedOff) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_DYNAMIC_UPDATE", "10");
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=3\n"));
  ASSERT_TRUE(setup.Init());
  setup.Trace().ForceMaxDebug(false);
  ASSERT_TRUE(setup.Init());
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=5\n"));
  setup.Trace().CheckDynamicUpdate(std::time(nullptr) + 20);
  EXPECT_TRUE(setup.Trace().IsActive(5));
}

TEST(DebugTraceConfig, PrintChecksTheFilesBeforeTheLevel) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_DYNAMIC_UPDATE", "1");
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=0\n"));
  ASSERT_TRUE(setup.Init());
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=1\n"));
  setup.Trace().CheckDynamicUpdate(1);  // as if the last check had been long ago, and before the file was written
  setup.WriteIni("app.ini", AppIni("FileDebugLevel=2\n"));
  setup.Trace().Print(2, "shown at once");
  EXPECT_EQ(setup.PlainLog(), "S [T] QxTrace       shown at once\n");
}

// --- the directory of the system --------------------------------------------------------------------------------

TEST(DebugTraceConfig, FilesAreInTheDirectoryOfTheSystem) {
  TraceSetup setup;
  const std::string levels = qx::test::WithPrivateMounts([] {
    qx::test::MountMemory("/etc", "");
    std::filesystem::create_directories("/etc/norrlek/QuaxelSuite/TraceConfig");
    WriteFile("/etc/norrlek/QuaxelSuite/TraceConfig/app.ini", AppIni("FileDebugLevel=3\n"));
    CDebug debug;
    const bool is_on = debug.Init("QxTrace");
    return std::string(is_on ? "on" : "off") + (debug.IsActive(3) ? " 3" : "") + (debug.IsActive(4) ? " 4" : "");
  });
  EXPECT_EQ(levels, "on 3");
}

}  // namespace
