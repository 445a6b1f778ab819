// Finds the settings of the trace facility, and the source of each setting.
#pragma once

#include <string>
#include <vector>

namespace qx::debug {

// One setting, with the value for a program that starts now in this environment.
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
// in `directory`. No other files are opened. Throws std::bad_alloc. [any thread that does not change the environment]
std::vector<SettingSource> ReadSettingSources(const std::string& app_name,
                                              const std::string& directory = kTraceConfigDirectory);

}  // namespace qx::debug
