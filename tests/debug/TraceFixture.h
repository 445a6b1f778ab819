// Helpers for the trace tests: a facility with a private settings directory and a private log, and a replacement for
// the system log.
#pragma once

#include <cstddef>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "debug/Debug.h"
#include "tests/support/Support.h"

namespace qx::test {

// A trace facility that reads its settings files from a directory of the test and shows its settings.
class TestDebug : public CDebug {
 public:
  explicit TestDebug(const char* config_directory) { SetConfigDirectory(config_directory); }

  using CDebug::CheckDynamicUpdate;

  const qx::debug::TraceSettings& Settings() const { return settings_; }
  const qx::debug::TraceFileValues& FileValues() const { return file_values_; }
};

// An environment without any of the facility's variables, a settings directory, a log directory (named by
// QX_LOG_RINGBUF_DIR) and a facility that is not yet started.
class TraceSetup {
 public:
  static constexpr const char* kAppName = "QxTrace";
  // "2026-01-31 10:20:30.123 [0123ABCD] QxTrace       ": the header of every entry of this application.
  static constexpr std::size_t kHeaderBytes = 49;
  static constexpr const char* kIniEnd = "[EndOfFile]\n";

  TraceSetup();

  // Writes a settings file with a modification time after those of all earlier ones.
  void WriteIni(const std::string& name, std::string_view text);
  std::string IniPath(std::string_view name) const { return config_.File(name); }

  void SetEnv(const char* name, const char* value);

  TestDebug& Trace() { return debug_; }
  bool Init() { return debug_.Init(kAppName); }
  // Starts the facility at `level`, whatever the files say.
  bool InitAtLevel(int level);

  const TempDir& LogDir() const { return logs_; }
  std::string LogPath() const { return logs_.File("log.qxtrace"); }
  // The log as it is; and the log with "S [T]" in place of the stamp and thread of each entry.
  std::string Log() const { return ReadFile(LogPath()); }
  std::string PlainLog() const;

 private:
  TempDir config_;
  TempDir logs_;
  std::vector<std::unique_ptr<ScopedEnv>> environment_;
  TestDebug debug_{config_.Path().c_str()};
  std::time_t file_time_ = 1767225600;
};

// Whether `text` begins like `shape`, in which "9" matches any digit and "F" any hexadecimal digit.
bool StartsWithShape(std::string_view text, std::string_view shape);

// "2026-01-31 10:20:30.123 [0123ABCD] QxTrace" => "S [T] QxTrace", at the start of every line.
std::string WithoutStamps(std::string_view log);

// The descriptor under which this process has `path` open, or -1.
int DescriptorOf(const std::string& path);

// Until the end of the scope, collects the messages of this process to the system log, as "PRIORITY text".
class SyslogCapture {
 public:
  SyslogCapture();
  ~SyslogCapture();
  SyslogCapture(const SyslogCapture&) = delete;
  SyslogCapture& operator=(const SyslogCapture&) = delete;

  std::vector<std::string> Messages() const;
};

}  // namespace qx::test
