// The settings of the trace facility and their files.
//
// A settings file is text in sections, "[QXRemConXfer]" and below it "FileDebugLevel=3". It is used only if its last
// section header is "[EndOfFile]": a program that writes it in place makes it invalid first and valid last, so that a
// reader never uses a partial file. docs/trace.md has the grammar, the sources of every setting and their precedence.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

// One settings file held in memory.
//
// Threads: none of its own; the trace facility calls it with its lock held.
// Owns: the file's text.
// Failure: a file that cannot be read whole (missing, not a regular file, over 16 MiB, shrinking while it is read,
// without "[EndOfFile]") leaves the object without text; it keeps its path, so that a later attempt may succeed.
class CDebugTraceConfigFile {
 public:
  static constexpr std::size_t kFileBytesMax = std::size_t{16} << 20;
  static constexpr std::size_t kValueCharsMax = 64;

  CDebugTraceConfigFile() noexcept = default;
  ~CDebugTraceConfigFile();
  CDebugTraceConfigFile(const CDebugTraceConfigFile&) = delete;
  CDebugTraceConfigFile& operator=(const CDebugTraceConfigFile&) = delete;

  // Names the file; nothing is read yet and an earlier text is dropped. [lock held: trace]
  void SetPath(std::string_view path);

  // The file's name, empty when none was set. [lock held: trace]
  [[nodiscard]] const std::string& Path() const noexcept { return path_; }

  // Reads the whole file and keeps its modification time. False: there is no text now. [lock held: trace]
  [[nodiscard]] bool Read();

  // Reads the file if its modification time is later than the kept one, or if there is no text. False: it was not read;
  // the text of a file that was removed or cannot be read is dropped. [lock held: trace]
  [[nodiscard]] bool ReadIfNewer();

  // Uses `text` like the content of a file. [lock held: trace]
  [[nodiscard]] bool ReadText(std::string_view text);

  // Finds the section whose name is `name`, whatever the case of its letters; the reads below use the section found
  // last. False: there is no such section, and nothing can be read. [lock held: trace]
  [[nodiscard]] bool FindSection(std::string_view name) noexcept;

  // Reads the number of `key`: decimal, "0x" hexadecimal, or octal after a leading "0", cut to 32 bits; a text that is
  // not a number is read as 0. False: there is no such key, and `value` is unchanged. [lock held: trace]
  [[nodiscard]] bool ReadNumber(std::string_view key, std::uint32_t& value) const noexcept;

  // Reads the text of `key`: at most 64 characters, all bytes up to the line feed. It points into this object and lives
  // until the next read. False: there is no such key, and `value` is unchanged. [lock held: trace]
  [[nodiscard]] bool ReadString(std::string_view key, std::string_view& value) const noexcept;

  // Drops the text, the section and the kept time; the path stays. [lock held: trace]
  void Clear() noexcept;

 private:
  bool Load();
  bool FillFrom(int descriptor) noexcept;
  bool TakeBuffer(std::size_t size) noexcept;
  bool IsComplete() const noexcept;
  std::string_view Text() const noexcept { return {text_, file_size_}; }

  std::string path_;
  char* text_ = nullptr;  // malloc'd: the file and 16 zero bytes
  const char* section_begin_ = nullptr;
  const char* section_end_ = nullptr;
  std::size_t file_size_ = 0;
  timespec modified_{};
};

namespace qx::debug {

constexpr std::uint32_t kUnset = 0xFFFFFFFF;
constexpr std::uint32_t kLogMaxSizeDefault = 51200;
constexpr std::size_t kDirectoryBytes = 256;

// The values in the settings files. A number that no file has is all ones; a directory that no file has is empty.
struct TraceFileValues {
  std::uint32_t dynamic_update = kUnset;
  std::uint32_t level = kUnset;
  std::uint32_t trace_flags = kUnset;
  std::uint32_t ring_factor = kUnset;
  std::uint32_t ring_weight = kUnset;
  char ring_directory[kDirectoryBytes] = {};
  std::uint32_t no_header_to_stderr = kUnset;
  std::uint32_t memory_traces = kUnset;
};

// The values in force, from files, environment and defaults. All ones until they have been read.
struct TraceSettings {
  // Seconds between two checks of the files, 0 for never. Read by every trace call without the lock: a late value only
  // delays a check.
  std::atomic<std::uint32_t> update_interval{kUnset};
  std::uint32_t level = kUnset;
  std::uint32_t trace_flags = kUnset;
  std::uint32_t ring_factor = kUnset;
  std::uint32_t ring_weight = kUnset;
  std::uint32_t no_header_to_stderr = kUnset;
  std::uint32_t memory_traces = kUnset;
  char trace_directory[kDirectoryBytes] = {};
  std::uint32_t log_max_size = kLogMaxSizeDefault;
};

}  // namespace qx::debug

// Every setting of the trace facility: the values in the files, and the values in force.
//
// Threads: the owner of the trace facility's lock. Every thread may read the atomic interval.
// Owns: the two settings files in use.
// Failure: a source that is missing, incomplete or without a key falls back to the next source without a message.
class CDebugTraceConfig {
 public:
  CDebugTraceConfig() noexcept = default;
  virtual ~CDebugTraceConfig() = default;
  CDebugTraceConfig(const CDebugTraceConfig&) = delete;
  CDebugTraceConfig& operator=(const CDebugTraceConfig&) = delete;

 protected:
  // Reads the files of another directory than the system's; `directory` must outlive the object. For tests.
  void SetConfigDirectory(const char* directory) noexcept { config_directory_ = directory; }

  // Puts every setting back to "no source has set it" and forgets the files. [lock held: trace]
  void ResetSettings();

  // Reads the global file, finds the application's file and takes its values. [lock held: trace]
  void ReadConfigFiles(std::string_view app_name);

  // Sets every setting: environment, else file value, else default. [lock held: trace]
  void ApplySources();

  // Reads the files that changed since the last check and uses the settings that may change at run time. True: a file
  // has a level, which becomes the current one. [lock held: trace]
  [[nodiscard]] bool RereadConfigFiles(std::string_view app_name);

  // The file whose section has the application's values; or empty. [lock held: trace]
  [[nodiscard]] const std::string& ApplicationFilePath() const noexcept { return application_file_.Path(); }

  qx::debug::TraceFileValues file_values_;
  qx::debug::TraceSettings settings_;

 private:
  bool ReadApplicationFile(const std::string& path, std::string_view app_name);
  void TakeApplicationValues();

  const char* config_directory_ = "/etc/norrlek/QuaxelSuite/TraceConfig";
  CDebugTraceConfigFile global_file_;
  CDebugTraceConfigFile application_file_;
};
