#include "tools/qxctl/store/SettingCommands.h"

#include "registry/RegistryPaths.h"
#include "tools/qxctl/cli/text/Quote.h"

namespace qx::ctl {

std::string MakeDirectoryCommand(std::string_view directory) { return "install -d -m 0755 " + ShellWord(directory); }

std::string RemoveCarriageReturnsCommand(std::string_view file) { return "sed -i 's/\\r$//' " + ShellWord(file); }

SettingCommands::SettingCommands(std::string_view registry_directory) {
  if (registry_directory != registry::kSystemDirectory) option_ = " --directory " + ShellWord(registry_directory);
}

std::string SettingCommands::Set(std::string_view key, std::string_view name, std::string_view value) const {
  return "qxctl registry set --create" + option_ + " --type string " + ShellWord(key) + " " + ShellWord(name) + " " +
         ShellWord(value) + " --apply";
}

std::string SettingCommands::Fix(const SettingMistake& mistake, const std::string& setup_key) const {
  const bool is_pointer = mistake.key == kPointerKey;
  const std::string key = is_pointer ? std::string(kPointerKey) : setup_key;
  const std::string_view name = is_pointer ? kRootPointer : kReportRoot;
  const std::string_view otherwise = is_pointer ? kDefaultRoot : kDefaultReportDirectory;
  const bool is_named = mistake.kind == SettingMistake::Kind::kNearValue;
  std::string set = Set(key, is_named ? mistake.expected : name, mistake.value.empty() ? otherwise : mistake.value);
  if (!is_named) return set;
  return set + " && qxctl registry delete" + option_ + " " + ShellWord(mistake.key) + " " + ShellWord(mistake.found) +
         " --apply";
}

std::string SettingCommands::Import(std::string_view file) const {
  return "qxctl registry import" + option_ + " " + ShellWord(file) + " --replace '' --apply";
}

std::string SettingCommands::Setup() const { return "qxctl setup" + option_ + " --apply"; }

}  // namespace qx::ctl
