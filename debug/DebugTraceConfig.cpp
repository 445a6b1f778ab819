#include "debug/DebugTraceConfig.h"

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/File.h"
#include "debug/TraceText.h"

using qx::debug::CopyText;
using qx::debug::EqualsIgnoringCase;
using qx::debug::kUnset;

namespace {

constexpr std::size_t kZeroBytesAfterText = 16;

bool IsLater(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

bool IsReadable(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_size >= 0 &&
         static_cast<std::uint64_t>(status.st_size) <= CDebugTraceConfigFile::kFileBytesMax;
}

// A line feed is not a blank here: otherwise the value of an empty "Key=" would be the next line.
bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

std::string_view WithoutLeadingBlanks(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  return text;
}

}  // namespace

CDebugTraceConfigFile::~CDebugTraceConfigFile() { std::free(text_); }

void CDebugTraceConfigFile::SetPath(std::string_view path) {
  Clear();
  path_ = path;
}

void CDebugTraceConfigFile::Clear() noexcept {
  std::free(text_);
  text_ = nullptr;
  section_begin_ = section_end_ = nullptr;
  file_size_ = 0;
  modified_ = {};
}

bool CDebugTraceConfigFile::Read() {
  Clear();
  if (Load() && IsComplete()) return true;
  Clear();
  return false;
}

bool CDebugTraceConfigFile::ReadIfNewer() {
  struct stat status {};
  if (path_.empty() || qx::file::StatusOf(path_.c_str(), status) != 0) {
    Clear();
    return false;
  }
  if (text_ != nullptr && !IsLater(status.st_mtim, modified_)) return false;
  return Read();
}

bool CDebugTraceConfigFile::ReadText(std::string_view text) {
  Clear();
  if (text.size() > kFileBytesMax || !TakeBuffer(text.size())) return false;
  if (!text.empty()) std::memcpy(text_, text.data(), text.size());
  if (IsComplete()) return true;
  Clear();
  return false;
}

bool CDebugTraceConfigFile::Load() {
  // Anything but a regular file is not opened, because opening a device can have an effect on it.
  struct stat status {};
  if (path_.empty() || qx::file::StatusOf(path_.c_str(), status) != 0 || !IsReadable(status)) return false;
  const qx::file::Descriptor file = qx::file::Open(path_.c_str(), O_RDONLY);
  return file.IsOpen() && FillFrom(file.Number());
}

bool CDebugTraceConfigFile::FillFrom(int descriptor) noexcept {
  // The time is taken before the bytes: a change during the read then counts as a newer file at the next check.
  struct stat status {};
  if (qx::file::StatusOf(descriptor, status) != 0 || !IsReadable(status)) return false;
  if (!TakeBuffer(static_cast<std::size_t>(status.st_size))) return false;
  modified_ = status.st_mtim;
  // If the file has become shorter meanwhile, a program is writing it.
  return qx::file::Read(descriptor, text_, file_size_).bytes == file_size_;
}

bool CDebugTraceConfigFile::TakeBuffer(std::size_t size) noexcept {
  text_ = static_cast<char*>(std::calloc(size + kZeroBytesAfterText, 1));
  if (text_ == nullptr) return false;
  file_size_ = size;
  return true;
}

bool CDebugTraceConfigFile::IsComplete() const noexcept {
  const std::string_view text = Text();
  const std::size_t end = text.rfind(']');
  if (end == std::string_view::npos) return false;
  const std::size_t begin = text.rfind('[', end);
  if (begin == std::string_view::npos) return false;
  return EqualsIgnoringCase(text.substr(begin + 1, end - begin - 1), "EndOfFile");
}

// Quirk: a "[" anywhere opens a header and the search continues after its "]", so in "a=[b\n[App]" the section App is
// never seen: the header's name is "b\n[App".
bool CDebugTraceConfigFile::FindSection(std::string_view name) noexcept {
  section_begin_ = section_end_ = nullptr;
  const std::string_view text = Text();
  for (std::size_t at = text.find('['); at != std::string_view::npos; at = text.find('[', at)) {
    const std::size_t end = text.find(']', at);
    if (end == std::string_view::npos) return false;
    if (EqualsIgnoringCase(text.substr(at + 1, end - at - 1), name)) {
      section_begin_ = text_ + end + 1;
      section_end_ = text_ + std::min(text.find('[', end), file_size_);
      return true;
    }
    at = end;
  }
  return false;
}

// Quirk: the key is searched for as plain text. So its first occurrence counts, even in a comment or inside a longer
// word, and the value is the text after the next "=", even if that is lines later.
//   "FileDebugLevel=3"                     => "3"
//   ";FileDebugLevel=1\nFileDebugLevel=3"  => "1"
//   "FileDebugLevel\nTraceFlags=8"         => "8"
bool CDebugTraceConfigFile::ReadString(std::string_view key, std::string_view& value) const noexcept {
  if (section_begin_ == nullptr) return false;
  std::string_view section(section_begin_, static_cast<std::size_t>(section_end_ - section_begin_));
  section = section.substr(0, section.find('\0'));
  const std::size_t key_at = section.find(key);
  if (key_at == std::string_view::npos) return false;
  const std::size_t equals_at = section.find('=', key_at + key.size());
  if (equals_at == std::string_view::npos) return false;
  value = WithoutLeadingBlanks(section.substr(equals_at + 1));
  value = value.substr(0, std::min(value.find('\n'), kValueCharsMax));
  return true;
}

bool CDebugTraceConfigFile::ReadNumber(std::string_view key, std::uint32_t& value) const noexcept {
  std::string_view text;
  if (!ReadString(key, text)) return false;
  char digits[kValueCharsMax + 1];
  CopyText(digits, text);
  value = static_cast<std::uint32_t>(std::strtoul(digits, nullptr, 0));
  return true;
}

namespace {

constexpr const char* kGlobalFileName = "global_trace.ini";
constexpr std::string_view kGlobalSection = "GlobalDebugSettings";
constexpr std::string_view kDefaultDirectory = "/var/log/brollan";

int HasIniInName(const dirent* entry) { return std::strstr(entry->d_name, ".ini") != nullptr; }

// Compares in byte order, so that the locale does not decide which file is used.
int InByteOrder(const dirent** a, const dirent** b) { return std::strcmp((*a)->d_name, (*b)->d_name); }

// The result of scandir, freed at the end of the scope.
struct Entries {
  dirent** list = nullptr;
  int count = 0;

  Entries() = default;
  ~Entries() {
    for (int i = 0; i < count; ++i) std::free(list[i]);
    std::free(list);
  }
  Entries(const Entries&) = delete;
  Entries& operator=(const Entries&) = delete;
};

// The names in `directory` that contain ".ini", in byte order; an empty list if the directory cannot be listed.
std::vector<std::string> IniFileNames(const char* directory) {
  Entries entries;
  entries.count = std::max(0, ::scandir(directory, &entries.list, HasIniInName, InByteOrder));
  std::vector<std::string> names;
  names.reserve(static_cast<std::size_t>(entries.count));
  for (int i = 0; i < entries.count; ++i) names.emplace_back(entries.list[i]->d_name);
  return names;
}

// The number in the environment variable if it is set, otherwise `file_value` if it is set, otherwise `fallback`. A
// variable with an empty text, or a text that is not a number, counts as 0.
std::uint32_t FromEnvironment(const char* variable, std::uint32_t file_value, std::uint32_t fallback) {
  if (const char* text = std::getenv(variable)) return static_cast<std::uint32_t>(std::strtol(text, nullptr, 10));
  return file_value != kUnset ? file_value : fallback;
}

// Reads the number of `key` if the file has one. A number of all ones means "no value" and is not used.
bool TakeNumber(const CDebugTraceConfigFile& file, std::string_view key, std::uint32_t& value) {
  std::uint32_t number = kUnset;
  if (!file.ReadNumber(key, number) || number == kUnset) return false;
  value = number;
  return true;
}

std::uint32_t FromFile(std::uint32_t file_value, std::uint32_t fallback) {
  return file_value != kUnset ? file_value : fallback;
}

}  // namespace

void CDebugTraceConfig::ResetSettings() {
  file_values_ = {};
  settings_.update_interval.store(kUnset, std::memory_order_relaxed);
  settings_.level = settings_.trace_flags = kUnset;
  settings_.ring_factor = settings_.ring_weight = kUnset;
  settings_.no_header_to_stderr = settings_.memory_traces = kUnset;
  CopyText(settings_.trace_directory, "");
  settings_.log_max_size = qx::debug::kLogMaxSizeDefault;
  global_file_.SetPath("");
  application_file_.SetPath("");
}

void CDebugTraceConfig::ReadConfigFiles(std::string_view app_name) {
  const std::string directory = std::string(config_directory_) + "/";
  global_file_.SetPath(directory + kGlobalFileName);
  if (global_file_.Read() && global_file_.FindSection(kGlobalSection)) {
    TakeNumber(global_file_, "DynamicUpdate", file_values_.dynamic_update);
  }
  for (const std::string& name : IniFileNames(config_directory_)) {
    if (ReadApplicationFile(directory + name, app_name)) return;
  }
  application_file_.SetPath("");
}

bool CDebugTraceConfig::ReadApplicationFile(const std::string& path, std::string_view app_name) {
  application_file_.SetPath(path);
  if (!application_file_.Read() || !application_file_.FindSection(app_name)) return false;
  TakeApplicationValues();
  return true;
}

void CDebugTraceConfig::TakeApplicationValues() {
  std::string_view directory;
  if (application_file_.ReadString("RingBufferDirectory", directory)) CopyText(file_values_.ring_directory, directory);
  TakeNumber(application_file_, "FileDebugLevel", file_values_.level);
  TakeNumber(application_file_, "TraceFlags", file_values_.trace_flags);
  TakeNumber(application_file_, "RingBufferSizeFactor", file_values_.ring_factor);
  TakeNumber(application_file_, "RingBufferSizeWeight", file_values_.ring_weight);
  TakeNumber(application_file_, "NoHeaderToStderr", file_values_.no_header_to_stderr);
  TakeNumber(application_file_, "MemoryTracesFlag", file_values_.memory_traces);
}

void CDebugTraceConfig::ApplySources() {
  const auto directory_from = [this](const char* variable) -> std::string_view {
    if (const char* text = std::getenv(variable)) return text;
    return file_values_.ring_directory[0] != '\0' ? file_values_.ring_directory : kDefaultDirectory;
  };
  settings_.update_interval.store(FromEnvironment("QX_LOG_DYNAMIC_UPDATE", file_values_.dynamic_update, 0),
                                  std::memory_order_relaxed);
  settings_.trace_flags = FromFile(file_values_.trace_flags, 0);
  settings_.memory_traces = FromFile(file_values_.memory_traces, 0);

  CopyText(settings_.trace_directory, directory_from("QX_LOG_FILE_DIR"));
  settings_.log_max_size = FromEnvironment("QX_LOG_FILE_MAX_SIZE", kUnset, qx::debug::kLogMaxSizeDefault);
  // Quirk: this always replaces the directory that was set above. So log and ring are in the same directory, and
  // QX_LOG_FILE_DIR has no effect.
  CopyText(settings_.trace_directory, directory_from("QX_LOG_RINGBUF_DIR"));
  settings_.level = FromEnvironment("QX_LOG_DEBUG_LEVEL", file_values_.level, 0);
  settings_.ring_factor = FromEnvironment("TraceFileLimit", file_values_.ring_factor, 0);
  settings_.ring_weight = FromEnvironment("QX_LOG_RINGBUF_WEIGHT", file_values_.ring_weight, 0);
  settings_.no_header_to_stderr = FromEnvironment("QX_LOG_NOHDR_TOSDTERR", file_values_.no_header_to_stderr, 1);
}

bool CDebugTraceConfig::RereadConfigFiles(std::string_view app_name) {
  if (global_file_.ReadIfNewer() && global_file_.FindSection(kGlobalSection) &&
      TakeNumber(global_file_, "DynamicUpdate", file_values_.dynamic_update)) {
    settings_.update_interval.store(file_values_.dynamic_update, std::memory_order_relaxed);
  }
  if (!application_file_.ReadIfNewer() || !application_file_.FindSection(app_name)) return false;
  if (TakeNumber(application_file_, "TraceFlags", file_values_.trace_flags)) {
    settings_.trace_flags = file_values_.trace_flags;
  }
  if (TakeNumber(application_file_, "MemoryTracesFlag", file_values_.memory_traces)) {
    settings_.memory_traces = file_values_.memory_traces;
  }
  if (!TakeNumber(application_file_, "FileDebugLevel", file_values_.level)) return false;
  settings_.level = file_values_.level;
  return true;
}
