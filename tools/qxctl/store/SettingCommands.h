// Writes commands that an operator can paste: they set what the registry lacks, and make the directories that it names.
#pragma once

#include <string>
#include <string_view>

#include "tools/qxctl/store/ReportSettings.h"

namespace qx::ctl {

// "install -d -m 0755 DIR"
[[nodiscard]] std::string MakeDirectoryCommand(std::string_view directory);

// "sed -i 's/\r$//' FILE"
[[nodiscard]] std::string RemoveCarriageReturnsCommand(std::string_view file);

// Commands that change the registry in one directory. The option --directory is left out for the system's directory.
//
// Threads: any number.
class SettingCommands {
 public:
  explicit SettingCommands(std::string_view registry_directory);

  // "qxctl registry set --create KEY NAME VALUE --apply"
  [[nodiscard]] std::string Set(std::string_view key, std::string_view name, std::string_view value) const;
  // Sets ReportRoot to the value that seems to be meant, or else to the one that "qxctl setup" would name. A value with
  // a wrong name is deleted.
  [[nodiscard]] std::string Fix(const SettingMistake& mistake, const std::string& setup_key) const;
  // Takes over a file of another name: "qxctl registry import FILE --replace '' --apply"
  [[nodiscard]] std::string Import(std::string_view file) const;
  // "qxctl setup --apply"
  [[nodiscard]] std::string Setup() const;

 private:
  std::string option_;  // " --directory DIR", or nothing
};

}  // namespace qx::ctl
