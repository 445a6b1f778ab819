// The settings of the trace facility with the source of each.
#pragma once

#include <string>
#include <vector>

namespace qx::debug {

// One setting, as a program that starts now in this environment uses it.
struct SettingSource {
  enum class Kind {
    kDefault,
    kEnvironment,  // `name` is the variable
    kFile,         // `name` is the key, in `section` of `file`
    kComputed,     // from other settings
  };
  std::string setting;  // "level"
  std::string value;
  Kind kind = Kind::kDefault;
  std::string name;
  std::string file;
  std::string section;
};

constexpr const char* kTraceConfigDirectory = "/etc/norrlek/QuaxelSuite/TraceConfig";

// The settings that the application `app_name` reads from the environment of this process and from the settings files
// in `directory`. Nothing is opened but these files. Throws std::bad_alloc. [any thread that does not change the
// environment]
std::vector<SettingSource> ReadSettingSources(const std::string& app_name,
                                              const std::string& directory = kTraceConfigDirectory);

}  // namespace qx::debug
