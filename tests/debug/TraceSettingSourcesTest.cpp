// Tests that the reported settings are those that the facility uses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "debug/tools/TraceSettingSources.h"
#include "tests/debug/TraceFixture.h"

namespace qx::test {

namespace {

using debug::SettingSource;
using Kind = SettingSource::Kind;

class TraceSettingSources : public testing::Test, protected TraceSetup {
 protected:
  std::string ConfigDirectory() const { return std::filesystem::path(IniPath("x")).parent_path(); }
  std::vector<SettingSource> Sources() const { return debug::ReadSettingSources(kAppName, ConfigDirectory()); }
  SettingSource Source(const std::string& setting) const {
    for (const SettingSource& source : Sources()) {
      if (source.setting == setting) return source;
    }
    return {};
  }
};

// The value of "Label   : value" in the header block that the facility writes about itself.
std::string HeaderValue(const std::string& log, const std::string& label) {
  const std::size_t at = log.rfind(label);
  if (at == std::string::npos) return "no " + label;
  const std::size_t begin = log.find(": ", at) + 2;
  return log.substr(begin, log.find('\n', begin) - begin);
}

// Chooses one of the values, or null.
const char* Choose(std::mt19937_64& random, std::initializer_list<const char*> values) {
  const std::size_t index = random() % (values.size() + 1);
  return index == values.size() ? nullptr : *(values.begin() + static_cast<std::ptrdiff_t>(index));
}

constexpr std::initializer_list<const char*> kNumbers = {"",     "0",   "1",   "2",     "3",          "-1",
                                                         "0x10", "010", "abc", "51200", "99999999999"};
// With these values a ring stays small.
constexpr std::initializer_list<const char*> kRingNumbers = {"", "0", "1", "-1", "-7", "abc", "99999999999"};

std::string RandomIni(std::mt19937_64& random, const std::string& directory) {
  std::string text = random() % 4 == 0 ? "[Other]\nFileDebugLevel=6\n" : "";
  if (random() % 5 != 0) text += random() % 2 == 0 ? "[QxTrace]\n" : "[QXTRACE]\n";
  for (const char* const key : {"FileDebugLevel", "TraceFlags", "NoHeaderToStderr", "MemoryTracesFlag"}) {
    if (const char* value = Choose(random, kNumbers)) text.append(key).append("=").append(value).append("\n");
  }
  for (const char* const key : {"RingBufferSizeFactor", "RingBufferSizeWeight"}) {
    if (const char* value = Choose(random, kRingNumbers)) text.append(key).append("=").append(value).append("\n");
  }
  if (random() % 2 == 0) text += "RingBufferDirectory=" + directory + "\n";
  return text + (random() % 6 == 0 ? "[Unfinished]\n" : "[EndOfFile]\n");
}

}  // namespace

TEST_F(TraceSettingSources, WithoutAnySettingTheDefaultsAreReported) {
  SetEnv("QX_LOG_RINGBUF_DIR", nullptr);
  for (const SettingSource& source : Sources()) {
    EXPECT_TRUE(source.kind == Kind::kDefault || source.kind == Kind::kComputed) << source.setting;
  }
  EXPECT_EQ(Source("trace directory").value, "/var/log/brollan");
  EXPECT_EQ(Source("log file").value, "/var/log/brollan/log.qxtrace");
  EXPECT_EQ(Source("log maximum size").value, "51200");
  EXPECT_EQ(Source("no header to stderr").value, "1");
}

TEST_F(TraceSettingSources, FileIsNamedWithSectionAndKey) {
  WriteIni("a.ini", "[Other]\nFileDebugLevel=1\n[EndOfFile]\n");
  WriteIni("b.ini", "[qxtrace]\nFileDebugLevel=0x10\n[EndOfFile]\n");
  WriteIni("c.ini", "[QxTrace]\nFileDebugLevel=2\n[EndOfFile]\n");
  WriteIni("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=10\n[EndOfFile]\n");
  const SettingSource level = Source("level");
  EXPECT_EQ(level.value, "16");
  EXPECT_EQ(level.kind, Kind::kFile);
  EXPECT_EQ(level.name, "FileDebugLevel");
  EXPECT_EQ(level.section, "QxTrace");
  EXPECT_EQ(level.file, IniPath("b.ini"));
  EXPECT_EQ(Source("update interval").file, IniPath("global_trace.ini"));
  EXPECT_EQ(Source("update interval").section, "GlobalDebugSettings");
}

TEST_F(TraceSettingSources, EnvironmentIsNamedBeforeTheFile) {
  WriteIni("b.ini", "[QxTrace]\nFileDebugLevel=0x10\nRingBufferSizeWeight=9\n[EndOfFile]\n");
  SetEnv("QX_LOG_DEBUG_LEVEL", "3");
  SetEnv("QX_LOG_RINGBUF_WEIGHT", "4");
  EXPECT_EQ(Source("level").value, "3");
  EXPECT_EQ(Source("level").name, "QX_LOG_DEBUG_LEVEL");
  EXPECT_EQ(Source("ring-buffer weight").name, "QX_LOG_RINGBUF_WEIGHT");
  SetEnv("QX_LOG_RINGBUF_WEIGHT_QXTRACE", "");
  EXPECT_EQ(Source("ring-buffer weight").name, "QX_LOG_RINGBUF_WEIGHT_QXTRACE");
  EXPECT_EQ(Source("ring-buffer weight").value, "0");
}

TEST_F(TraceSettingSources, ReadingSettingsOpensNoLog) {
  (void)Sources();
  EXPECT_FALSE(Exists(LogPath()));
}

// Files and environment that set most settings at random, some to a text that is not a number.
class RandomTraceSettings : public TraceSettingSources {
 protected:
  void Configure(std::mt19937_64& random) {
    for (const char* const name : {"a.ini", "b.ini", "global_trace.ini"}) {
      std::filesystem::remove(IniPath(name));
      if (random() % 3 != 0) WriteIni(name, RandomIni(random, other_.Path()));
    }
    if (random() % 2 == 0) WriteIni("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=7\n[EndOfFile]\n");
    for (const char* const variable : {"QX_LOG_DYNAMIC_UPDATE", "QX_LOG_DEBUG_LEVEL", "QX_LOG_FILE_MAX_SIZE"}) {
      SetEnv(variable, Choose(random, kNumbers));
    }
    SetEnv("QX_LOG_NOHDR_TOSDTERR", random() % 2 == 0 ? "1" : "2");
    for (const char* const variable : {"TraceFileLimit", "QX_LOG_RINGBUF_WEIGHT", "QX_LOG_RINGBUF_WEIGHT_QXTRACE"}) {
      SetEnv(variable, Choose(random, kRingNumbers));
    }
    SetEnv("QX_LOG_RINGBUF_DIR", random() % 2 == 0 ? LogDir().Path().c_str() : other_.Path().c_str());
  }

  void ExpectSettings() {
    const auto& settings = Trace().Settings();
    EXPECT_EQ(Source("update interval").value, std::to_string(settings.update_interval));
    EXPECT_EQ(Source("level").value, std::to_string(settings.level));
    EXPECT_EQ(Source("trace flags").value, std::to_string(settings.trace_flags));
    EXPECT_EQ(Source("memory traces").value, std::to_string(settings.memory_traces));
    EXPECT_EQ(Source("no header to stderr").value, std::to_string(settings.no_header_to_stderr));
    EXPECT_EQ(Source("trace directory").value, settings.trace_directory);
  }

  void ExpectHeaderValues() {
    Trace().WriteLogHeader(CDebug::kTargetLogFile);
    const std::string log = ReadFile(Source("log file").value);
    EXPECT_EQ(Source("log file").value, HeaderValue(log, "LogFile Path  "));
    EXPECT_EQ(Source("ring-buffer factor").value, HeaderValue(log, "Ring Buffer Factor "));
    EXPECT_EQ(Source("ring-buffer weight").value, HeaderValue(log, "Ring Buffer Weight "));
    EXPECT_EQ(Source("ring-buffer size").value, HeaderValue(log, "Ring Buffer Size "));
    EXPECT_EQ(Source("ring-buffer file").value, HeaderValue(log, "Ring Buffer Path "));
  }

 private:
  const TempDir other_;
};

TEST_F(RandomTraceSettings, ValuesAgreeWithTheFacility) {
  const std::uint64_t seed = Seed("TraceSettingSources");
  std::mt19937_64 random(seed);
  for (int round = 0; round < 150; ++round) {
    Configure(random);
    ASSERT_TRUE(Init());
    ExpectSettings();
    if (Trace().Settings().log_max_size >= 51200) ExpectHeaderValues();  // otherwise the header does not stay whole
    ASSERT_FALSE(HasFailure()) << "seed " << seed << ", round " << round;
  }
}

}  // namespace qx::test
