// Rebuilds the worked examples of docs/trace.md.
#include <gtest/gtest.h>

#include "debug/EntryHeader.h"
#include "tests/debug/TraceFixture.h"

namespace {

using qx::test::DocExample;
using qx::test::TraceSetup;

constexpr const char* kStamp = "2026-01-31 10:20:30.123";
constexpr std::uint32_t kThread = 0x0A1B2C3D;

std::string Header(const std::size_t* resident_kilobytes) {
  char buffer[129];
  return {buffer,
          qx::debug::FormatEntryHeader(buffer, sizeof buffer, {kStamp, kThread, "QxTrace", resident_kilobytes})};
}

// The log with the stamp and thread of the examples in every line.
std::string DatedLog(const TraceSetup& setup) {
  std::string log = setup.PlainLog();
  const std::string dated = std::string(kStamp) + " [0A1B2C3D]";
  for (std::size_t at = 0; (at = log.find("S [T]", at)) != std::string::npos; at += dated.size()) {
    log.replace(at, 5, dated);
  }
  return log;
}

std::string SettingLine(const char* name, std::uint32_t value) {
  return std::string(name) + std::to_string(value) + "\n";
}

TEST(TraceDoc, ConfigurationExample) {
  TraceSetup setup;
  const std::string global = "[GlobalDebugSettings]\nDynamicUpdate=10\n\n[EndOfFile]\n";
  const std::string application =
      "[QxTrace]\nFileDebugLevel=0x10\nRingBufferSizeFactor=5\nRingBufferSizeWeight = 4\n;MemoryTracesFlag=1\n\n"
      "[Other]\nTraceFlags=1\n\n[EndOfFile]\n";
  setup.WriteIni("global_trace.ini", global);
  setup.WriteIni("qxtrace.ini", application);
  setup.SetEnv("QX_LOG_DEBUG_LEVEL", "3");
  setup.SetEnv("QX_LOG_RINGBUF_WEIGHT_QXTRACE", "");
  ASSERT_TRUE(setup.Init());
  const auto& settings = setup.Trace().Settings();
  EXPECT_EQ("--- global_trace.ini\n" + global + "--- qxtrace.ini\n" + application +
                "--- environment\nQX_LOG_DEBUG_LEVEL=3\nQX_LOG_RINGBUF_WEIGHT_QXTRACE=\n--- settings of QxTrace\n" +
                SettingLine("update interval     ", settings.update_interval) +
                SettingLine("level               ", settings.level) +
                SettingLine("trace flags         ", settings.trace_flags) +
                SettingLine("ring-buffer factor  ", settings.ring_factor) +
                SettingLine("ring-buffer weight  ", settings.ring_weight) +
                SettingLine("no header to stderr ", settings.no_header_to_stderr) +
                SettingLine("memory traces       ", settings.memory_traces) +
                SettingLine("log maximum size    ", settings.log_max_size),
            DocExample("trace.md", "trace-config"));
}

TEST(TraceDoc, EntryExample) {
  const std::size_t kilobytes = 51234;
  const std::string text = "WCSP_QX GetReports  : start\n";
  EXPECT_EQ(qx::test::HexDump(Header(nullptr) + text) + "\n" + qx::test::HexDump(Header(&kilobytes) + text),
            DocExample("trace.md", "log-entry"));
}

TEST(TraceDoc, WrapExample) {
  TraceSetup setup;
  setup.SetEnv("QX_LOG_FILE_MAX_SIZE", "500");
  ASSERT_TRUE(setup.InitAtLevel(1));
  setup.Trace().Print(1, "\nstart of the service");
  setup.Trace().SetApplInitDone();
  for (int i = 1; i <= 8; ++i) setup.Trace().Print(1, "\nrequest %d, level 1", i);
  EXPECT_EQ(DatedLog(setup), DocExample("trace.md", "log-wrap"));
}

}  // namespace
