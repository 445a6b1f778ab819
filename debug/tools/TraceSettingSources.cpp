#include "debug/tools/TraceSettingSources.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "debug/Debug.h"

namespace qx::debug {

namespace {

using Kind = SettingSource::Kind;

constexpr std::int32_t kFactorMax = 2;

// Reads files and environment as the trace facility does, but opens no log, because that would empty it.
class SettingsReader : public CDebugTraceConfig {
 public:
  SettingsReader(const std::string& directory, const std::string& app_name) {
    SetConfigDirectory(directory.c_str());
    ResetSettings();
    ReadConfigFiles(app_name);
    ApplySources();
  }
  const TraceSettings& Settings() const { return settings_; }
  const TraceFileValues& Files() const { return file_values_; }
  const std::string& ApplicationFile() const { return ApplicationFilePath(); }
};

std::string Decimal(std::uint32_t value) { return std::to_string(value); }
std::string Signed(std::uint32_t value) { return std::to_string(static_cast<std::int32_t>(value)); }

// A list of settings, each with the first source that has it.
class SourceList {
 public:
  SourceList(const std::string& directory, const std::string& application_file, const std::string& app_name)
      : global_file_(directory + "/global_trace.ini"), application_file_(application_file), app_name_(app_name) {}

  // `variables` are in the order of their priority.
  void Add(const char* setting, const std::string& value, std::initializer_list<const char*> variables, const char* key,
           bool is_in_file) {
    SettingSource source{
        .setting = setting, .value = value, .kind = Kind::kDefault, .name = {}, .file = {}, .section = {}};
    const auto set = std::find_if(variables.begin(), variables.end(),
                                  [](const char* variable) { return std::getenv(variable) != nullptr; });
    if (set != variables.end()) {
      source.kind = Kind::kEnvironment;
      source.name = *set;
    } else if (is_in_file) {
      const bool is_global = std::strcmp(key, "DynamicUpdate") == 0;
      source.kind = Kind::kFile;
      source.name = key;
      source.file = is_global ? global_file_ : application_file_;
      source.section = is_global ? "GlobalDebugSettings" : app_name_;
    }
    sources_.push_back(std::move(source));
  }

  void AddComputed(const char* setting, const std::string& value) {
    sources_.push_back(
        {.setting = setting, .value = value, .kind = Kind::kComputed, .name = {}, .file = {}, .section = {}});
  }

  std::vector<SettingSource> Take() { return std::move(sources_); }

 private:
  std::string global_file_;
  std::string application_file_;
  std::string app_name_;
  std::vector<SettingSource> sources_;
};

struct RingSettings {
  std::string weight_variable;
  std::uint32_t factor;
  std::uint32_t weight;
  std::uint64_t bytes;  // 0: no ring
};

RingSettings ComputeRing(const TraceSettings& settings, const std::string& app_name) {
  char variable[48] = "QX_LOG_RINGBUF_WEIGHT";
  CDebug::BuildAppVarName(variable, sizeof variable, app_name.c_str());
  RingSettings ring{variable, settings.ring_factor, settings.ring_weight, 0};
  if (const char* weight = std::getenv(variable)) {
    ring.weight = static_cast<std::uint32_t>(std::strtol(weight, nullptr, 10));
  }
  const std::int32_t factor = std::min(static_cast<std::int32_t>(ring.factor), kFactorMax);
  ring.factor = static_cast<std::uint32_t>(factor);
  if (factor < 0 || static_cast<std::int32_t>(ring.weight) < 0) return ring;
  const long page = ::sysconf(_SC_PAGESIZE);
  const std::uint64_t bytes =
      std::uint64_t{ring.factor} * ring.weight * 256 * static_cast<std::uint64_t>(page < 1 ? 4096 : page);
  ring.bytes = bytes <= UINT32_MAX ? bytes : 0;
  return ring;
}

void AddRing(SourceList& list, const TraceSettings& settings, const TraceFileValues& files,
             const std::string& app_name) {
  const RingSettings ring = ComputeRing(settings, app_name);
  list.Add("ring-buffer factor", Signed(ring.factor), {"TraceFileLimit"}, "RingBufferSizeFactor",
           files.ring_factor != kUnset);
  list.Add("ring-buffer weight", Signed(ring.weight), {ring.weight_variable.c_str(), "QX_LOG_RINGBUF_WEIGHT"},
           "RingBufferSizeWeight", files.ring_weight != kUnset);
  list.AddComputed("ring-buffer size", std::to_string(ring.bytes));
}

void AddFiles(SourceList& list, const TraceSettings& settings, const std::string& app_name) {
  std::string path = std::string(settings.trace_directory) + "/log." + app_name;
  CDebug::StringToLower(path.data() + path.size() - app_name.size());
  list.AddComputed("log file", path);
  list.AddComputed("ring-buffer file", path + "_a");
}

}  // namespace

std::vector<SettingSource> ReadSettingSources(const std::string& app_name, const std::string& directory) {
  const SettingsReader reader(directory, app_name);
  const TraceSettings& settings = reader.Settings();
  const TraceFileValues& files = reader.Files();
  SourceList list(directory, reader.ApplicationFile(), app_name);
  list.Add("update interval", Decimal(settings.update_interval), {"QX_LOG_DYNAMIC_UPDATE"}, "DynamicUpdate",
           files.dynamic_update != kUnset);
  list.Add("level", Decimal(settings.level), {"QX_LOG_DEBUG_LEVEL"}, "FileDebugLevel", files.level != kUnset);
  list.Add("trace flags", Decimal(settings.trace_flags), {}, "TraceFlags", files.trace_flags != kUnset);
  list.Add("memory traces", Decimal(settings.memory_traces), {}, "MemoryTracesFlag", files.memory_traces != kUnset);
  list.Add("no header to stderr", Decimal(settings.no_header_to_stderr), {"QX_LOG_NOHDR_TOSDTERR"}, "NoHeaderToStderr",
           files.no_header_to_stderr != kUnset);
  list.Add("trace directory", settings.trace_directory, {"QX_LOG_RINGBUF_DIR"}, "RingBufferDirectory",
           files.ring_directory[0] != '\0');
  list.Add("log maximum size", Decimal(settings.log_max_size), {"QX_LOG_FILE_MAX_SIZE"}, "", false);
  AddRing(list, settings, files, app_name);
  AddFiles(list, settings, app_name);
  return list.Take();
}

}  // namespace qx::debug
