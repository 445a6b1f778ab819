// Reads the settings of the trace facility from files and the environment.
//
// A settings file is text in sections, "[QXRemConXfer]" and below it "FileDebugLevel=3". A file is used only if its
// last section header is "[EndOfFile]". So a program can write the file in place and add this header last, and a reader
// never uses a partial file. docs/trace.md describes the grammar, the sources of every setting and their precedence.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

// The text of one settings file in memory.
//
// Threads: the owner of the trace facility's lock.
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

  // Sets the path of the file and drops an earlier text. Does not read the file. [lock held: trace]
  void SetPath(std::string_view path);

  // The path of the file; empty if no path was set. [lock held: trace]
  [[nodiscard]] const std::string& Path() const noexcept { return path_; }

  // Reads the whole file and keeps its modification time. False: it failed, and there is no text. [lock held: trace]
  [[nodiscard]] bool Read();

  // Reads the file if its modification time is later than the kept one, or if there is no text. False: the file was not
  // read. If it was removed or cannot be read, its text is dropped. [lock held: trace]
  [[nodiscard]] bool ReadIfNewer();

  // Uses `text` like the content of a file. [lock held: trace]
  [[nodiscard]] bool ReadText(std::string_view text);

  // Finds the section whose name is `name`, whatever the case of its letters; ReadNumber and ReadString use the section
  // that was found last. False: there is no such section, and nothing can be read. [lock held: trace]
  [[nodiscard]] bool FindSection(std::string_view name) noexcept;

  // Reads the number of `key`: decimal, "0x" hexadecimal, or octal after a leading "0", cut to 32 bits; a text that is
  // not a number is read as 0. False: there is no such key, and `value` is unchanged. [lock held: trace]
  [[nodiscard]] bool ReadNumber(std::string_view key, std::uint32_t& value) const noexcept;

  // Reads the text of `key`: at most 64 characters, all bytes up to the line feed. `value` points into this object, and
  // is valid until the next Read, ReadIfNewer, ReadText, SetPath or Clear. False: there is no such key, and `value` is
  // unchanged. [lock held: trace]
  [[nodiscard]] bool ReadString(std::string_view key, std::string_view& value) const noexcept;

  // Drops the text, the section and the modification time; the path stays. [lock held: trace]
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

// The values in the settings files. If no file has a number, it is all ones; if no file has a directory, the text is
// empty.
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

// The values that are used, from files, environment and defaults. Numbers are all ones until they are read, except
// log_max_size.
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

// Every setting of the trace facility: the values in the files, and the values that are used.
//
// Threads: the owner of the trace facility's lock. Every thread may read the atomic interval.
// Owns: the two settings files in use.
// Failure: if a source is missing or incomplete, or has no value for a setting, the next source is used, without a
// message.
class CDebugTraceConfig {
 public:
  CDebugTraceConfig() noexcept = default;
  virtual ~CDebugTraceConfig() = default;
  CDebugTraceConfig(const CDebugTraceConfig&) = delete;
  CDebugTraceConfig& operator=(const CDebugTraceConfig&) = delete;

 protected:
  // For tests: sets another directory of the settings files than that of the system. `directory` must outlive the
  // object.
  void SetConfigDirectory(const char* directory) noexcept { config_directory_ = directory; }

  // Resets every setting to its state before any source was read, and drops the files. [lock held: trace]
  void ResetSettings();

  // Reads the global file; finds the application's file and reads its values. [lock held: trace]
  void ReadConfigFiles(std::string_view app_name);

  // Sets every setting from the environment, otherwise from the files, otherwise to its default. [lock held: trace]
  void ApplySources();

  // Reads the files that changed since the last check and uses the settings that may change at run time. True: the
  // application's file was read and has a level. [lock held: trace]
  [[nodiscard]] bool RereadConfigFiles(std::string_view app_name);

  // The path of the file with the application's section; empty if there is no such file. [lock held: trace]
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
