// Tests the header block, line by line.
#include "debug/LogHeader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/debug/TraceFixture.h"

namespace {

using qx::test::ReadFile;
using qx::test::TraceSetup;

constexpr const char* kVariables[] = {"LD_LIBRARY_PATH",
                                      "QX_SYSTEM",
                                      "QX_OS",
                                      "QX_OS_MAJOR",
                                      "QX_OS_MINOR",
                                      "QX_VVOS",
                                      "QX_RELEASE",
                                      "QX_VENDOR",
                                      "QX_HOSTNAME",
                                      "QX_HOSTOSREVMAJOR",
                                      "QX_HOSTOSREVMINOR",
                                      "QX_SYSNAME",
                                      "QX_VERSION",
                                      "QX_NICKNAME",
                                      "QX_HWPLATFORM",
                                      "QX_RUNNINGONVM",
                                      "QX_RUNNINGONPAN",
                                      "QX_VMREL",
                                      "QX_ARCH",
                                      "QX_REPO",
                                      "QX_RAID_EXISTS",
                                      "QX_RAID_READY",
                                      "QX_RAID_VERSION",
                                      "QX_INSTALL_DATE",
                                      "QX_USE_SG_IO_HDR_T",
                                      "QX_AGENT_X_SOCKET",
                                      "QX_VRMD_REPLY_TIME",
                                      "QX_DAEMON_COREFILE_LIMIT",
                                      "QX_VME_WAIT_TIME_FOR_VMSERVER",
                                      "QX_KRX_PROVIDER_TRACE",
                                      "QX_KRX_NOSIGNAL",
                                      "QX_KRX_DEBUG_LEVEL",
                                      "ZTA_QX_HOME",
                                      "ZTA_SYSLOG_FIFO",
                                      "AgentPermission",
                                      "AgentShut",
                                      "ShutdownDelay",
                                      "UserGroup",
                                      "ScanTapeDevices",
                                      "NoAccountCheck",
                                      "InventoryRescan",
                                      "CDPollInterval",
                                      "AgentsToBeStarted",
                                      "WaitForVrmdSockets",
                                      "WaitForVrmdTerm",
                                      "InvAgtPollNetUtilization"};

// A pattern of the header block that a setup of this file writes. "@" is the beginning of each line, "DIR" the log's
// directory, "PID" the process id.
constexpr const char* kBlock = R"(@QxTrace Command Line Options:
@argv[0] = "agent"
@argv[1] = "-x"
@Quaxel Environment:
@LD_LIBRARY_PATH=NotSet
@QX_SYSTEM=NotSet
@QX_OS=Linux 100%d
@QX_OS_MAJOR=
@QX_OS_MINOR=NotSet
@QX_VVOS=NotSet
@QX_RELEASE=NotSet
@QX_VENDOR=NotSet
@QX_HOSTNAME=NotSet
@QX_HOSTOSREVMAJOR=NotSet
@QX_HOSTOSREVMINOR=NotSet
@QX_SYSNAME=NotSet
@QX_VERSION=NotSet
@QX_NICKNAME=NotSet
@QX_HWPLATFORM=NotSet
@QX_RUNNINGONVM=NotSet
@QX_RUNNINGONPAN=NotSet
@QX_VMREL=NotSet
@QX_ARCH=NotSet
@QX_REPO=NotSet
@QX_RAID_EXISTS=NotSet
@QX_RAID_READY=NotSet
@QX_RAID_VERSION=NotSet
@QX_INSTALL_DATE=NotSet
@QX_USE_SG_IO_HDR_T=NotSet
@QX_AGENT_X_SOCKET=NotSet
@QX_VRMD_REPLY_TIME=NotSet
@QX_DAEMON_COREFILE_LIMIT=NotSet
@QX_VME_WAIT_TIME_FOR_VMSERVER=NotSet
@QX_KRX_PROVIDER_TRACE=NotSet
@QX_KRX_NOSIGNAL=NotSet
@QX_LOG_DYNAMIC_UPDATE=NotSet
@QX_KRX_DEBUG_LEVEL=NotSet
@QX_LOG_FILE_DIR=NotSet
@QX_LOG_FILE_MAX_SIZE=-1
@QX_LOG_RINGBUF_DIR=DIR
@QX_LOG_DEBUG_LEVEL=NotSet
@QX_LOG_RINGBUF_WEIGHT=NotSet
@QX_LOG_NOHDR_TOSDTERR=NotSet
@ZTA_QX_HOME=NotSet
@ZTA_SYSLOG_FIFO=NotSet
@Quaxel Configuration File:
@AgentPermission=NotSet
@AgentShut=NotSet
@ShutdownDelay=7
@UserGroup=NotSet
@ScanTapeDevices=NotSet
@TraceFileLimit=5
@NoAccountCheck=NotSet
@InventoryRescan=NotSet
@CDPollInterval=NotSet
@AgentsToBeStarted=NotSet
@WaitForVrmdSockets=NotSet
@WaitForVrmdTerm=NotSet
@InvAgtPollNetUtilization=NotSet
@Debug values from ini file :
@DynamicUpdate              : -1
@DebugLevel                 : 3
@RingBufferSizeFactor       : 1
@RingBufferSizeWeight       : 4
@RingBufferDirectory        : /from/file
@No Header to LogFile       : -1
@Internal Debug values      :
@Process PID                : PID
@Trace Target               : 2
@Trace Level                : 3
@Trace Level Saved          : 3
@Application Init Done      : 0
@LogFile Path               : DIR/log.qxtrace
@LogFile Max Size           : -1
@Ring Buffer FD             : DESCRIPTOR
@Ring Buffer Factor         : 2
@Ring Buffer Weight         : 4
@Ring Buffer Size           : SIZE
@Ring Buffer Directory      : DIR
@Ring Buffer Path           : DIR/log.qxtrace_a
@No Header to LogFile       : 1
@# End of header.
)";

void Replace(std::string& text, std::string_view what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
}

// The lines that `setup` writes with a header block to `target`, without stamps.
std::string BlockOf(TraceSetup& setup, std::uint32_t target) {
  setup.Trace().WriteLogHeader(target);
  return setup.PlainLog();
}

void ClearEnvironment(TraceSetup& setup) {
  for (const char* name : kVariables) setup.SetEnv(name, nullptr);
}

// The number after `label` in the block.
std::string ValueOf(const std::string& block, const std::string& label) {
  const std::size_t at = block.find(label);
  if (at == std::string::npos) return "(missing)";
  const std::size_t value = block.find(": ", at) + 2;
  return block.substr(value, block.find('\n', value) - value);
}

TEST(LogHeader, BlockShowsArgumentsEnvironmentAndSettingsLineByLine) {
  TraceSetup setup;
  ClearEnvironment(setup);
  setup.SetEnv("QX_OS", "Linux 100%d");
  setup.SetEnv("QX_OS_MAJOR", "");
  setup.SetEnv("ShutdownDelay", "7");
  setup.SetEnv("TraceFileLimit", "5");
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "-1");
  setup.WriteIni("app.ini",
                 "[QxTrace]\nFileDebugLevel=3\nRingBufferSizeFactor=1\nRingBufferSizeWeight=4\n"
                 "RingBufferDirectory=/from/file\n[EndOfFile]");
  char program[] = "agent";
  char option[] = "-x";
  char* argv[] = {program, option, nullptr};
  setup.Trace().SetMainParams(2, argv);
  ASSERT_TRUE(setup.Init());

  std::string expected = kBlock;
  Replace(expected, "@", "S [T] QxTrace       ");
  Replace(expected, "DIR", "\1");
  Replace(expected, "QX_LOG_FILE_\1", "QX_LOG_FILE_DIR");
  Replace(expected, "QX_LOG_RINGBUF_\1", "QX_LOG_RINGBUF_DIR");
  Replace(expected, "\1", setup.LogDir().Path());
  Replace(expected, "DESCRIPTOR", std::to_string(qx::test::DescriptorOf(setup.LogDir().File("log.qxtrace_a"))));
  Replace(expected, "PID  ", "\1");
  Replace(expected, "PID", std::to_string(::getpid()));
  Replace(expected, "\1", "PID  ");
  Replace(expected, "SIZE\n", "\1");
  Replace(expected, "\1", std::to_string(2 * 4 * 256 * ::sysconf(_SC_PAGESIZE)) + "\n");
  EXPECT_EQ(BlockOf(setup, CDebug::kTargetLogFile), expected);
}

TEST(LogHeader, ValuesAreThoseOfTheStart) {
  TraceSetup setup;
  ClearEnvironment(setup);
  setup.SetEnv("QX_HOSTNAME", "at-start");
  ASSERT_TRUE(setup.Init());
  setup.SetEnv("QX_HOSTNAME", "later");
  const std::string block = BlockOf(setup, CDebug::kTargetLogFile);
  EXPECT_NE(block.find("QX_HOSTNAME=at-start\n"), std::string::npos);
  EXPECT_EQ(block.find("later"), std::string::npos);
}

TEST(LogHeader, WithoutMainParamsTheCommandLineIsOneLine) {
  TraceSetup setup;
  ASSERT_TRUE(setup.Init());
  const std::string block = BlockOf(setup, CDebug::kTargetLogFile);
  const std::string start =
      "S [T] QxTrace       QxTrace Command Line Options:\nS [T] QxTrace       Quaxel Environment:\n";
  EXPECT_EQ(block.substr(0, start.size()), start);
}

TEST(LogHeader, BlockGoesToTheCurrentTargetForZeroIfThereIsOne) {
  TraceSetup setup;
  ASSERT_TRUE(setup.Init());
  const std::size_t size = BlockOf(setup, CDebug::kTargetNone).size();
  EXPECT_GT(size, 1000U);
  setup.Trace().SetTarget(CDebug::kTargetNone);
  EXPECT_EQ(BlockOf(setup, CDebug::kTargetNone).size(), size);
}

TEST(LogHeader, InitDoneAndTheLimitedFactorAreShown) {
  TraceSetup setup;
  setup.SetEnv("TraceFileLimit", "5");
  ASSERT_TRUE(setup.Init());
  setup.Trace().SetApplInitDone();
  const std::string block = BlockOf(setup, CDebug::kTargetLogFile);
  EXPECT_EQ(ValueOf(block, "Application Init Done"), "1");
  EXPECT_EQ(ValueOf(block, "Ring Buffer Factor"), "2");
  EXPECT_EQ(ValueOf(block, "Ring Buffer Size"), "0");  // weight 0
  ASSERT_TRUE(setup.Init());
  EXPECT_EQ(ValueOf(BlockOf(setup, CDebug::kTargetLogFile), "Application Init Done"), "0");
}

TEST(LogHeader, RingSizeIsComputedWithoutOverflowAndIsZeroForNegativeNumbers) {
  const auto size_of = [](const char* factor, const char* weight) {
    TraceSetup setup;
    setup.SetEnv("TraceFileLimit", factor);
    setup.SetEnv("QX_LOG_RINGBUF_WEIGHT", weight);
    EXPECT_TRUE(setup.Init());
    return ValueOf(BlockOf(setup, CDebug::kTargetLogFile), "Ring Buffer Size");
  };
  const std::string unit = std::to_string(256 * ::sysconf(_SC_PAGESIZE));
  EXPECT_EQ(size_of("1", "1"), unit);
  EXPECT_EQ(size_of("2", "2147483647"), "0");
  EXPECT_EQ(size_of("1", "4096"), "0");  // 4,294,967,296 bytes with pages of 4096
  EXPECT_EQ(size_of("-1", "1"), "0");
  EXPECT_EQ(size_of("-1", "-1"), "0");
  EXPECT_EQ(size_of("1", "-4"), "0");
}

// The text that `body` writes to standard error.
template <typename Body>
std::string StderrOf(const std::string& path, const Body& body) {
  const int kept = ::dup(STDERR_FILENO);
  const int file = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0600);
  EXPECT_GE(::dup2(file, STDERR_FILENO), 0);
  body();
  EXPECT_GE(::dup2(kept, STDERR_FILENO), 0);
  ::close(kept);
  ::close(file);
  return ReadFile(path);
}

TEST(LogHeader, GoesAlsoToStandardErrorIfTheNoHeaderFlagIsZero) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_NOHDR_TOSDTERR", "0");
  ASSERT_TRUE(setup.InitAtLevel(1));
  const std::string shown =
      StderrOf(setup.LogDir().File("stderr"), [&] { setup.Trace().WriteLogHeader(CDebug::kTargetLogFile); });
  EXPECT_EQ(qx::test::WithoutStamps(shown), setup.PlainLog());
  setup.Trace().Print(1, "an entry is not for standard error");
}

TEST(LogHeader, StaysOutOfStandardErrorByDefaultAndForTheRingBuffer) {
  TraceSetup setup;
  ASSERT_TRUE(setup.Init());
  const std::string path = setup.LogDir().File("stderr");
  EXPECT_EQ(StderrOf(path, [&] { setup.Trace().WriteLogHeader(CDebug::kTargetLogFile); }), "");
  setup.SetEnv("QX_LOG_NOHDR_TOSDTERR", "0");
  ASSERT_TRUE(setup.Init());
  EXPECT_EQ(StderrOf(path, [&] { setup.Trace().WriteLogHeader(CDebug::kTargetRingBuffer); }), "");
}

TEST(LogHeader, CommandLineOfTheProgramNeverGoesToStandardError) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_NOHDR_TOSDTERR", "0");
  ASSERT_TRUE(setup.Init());
  char program[] = "agent";
  char* argv[] = {program, nullptr};
  EXPECT_EQ(StderrOf(setup.LogDir().File("stderr"), [&] { setup.Trace().SetMainParams(1, argv); }), "");
  EXPECT_EQ(setup.PlainLog(),
            "S [T] QxTrace       QxTrace Command Line Options:\nS [T] QxTrace       argv[0] = \"agent\"\n");
}

}  // namespace
