#include "tools/qxctl/store/ReportSettings.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "registry/Registry.h"
#include "registry/RegistryValue.h"
#include "registry/tools/TreeDiff.h"
#include "registry/tools/TreeEdit.h"
#include "tools/qxctl/cli/text/NearNames.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

const char kLocalMachine[] = "HKEY_LOCAL_MACHINE";

struct Names {
  std::vector<std::string> keys;
  std::vector<std::string> values;
};

Names NamesIn(const CRegistryNode& key) {
  Names names;
  const LockScope lock(key.Lock());
  for (const StrMapEntry& entry : key.Entries()) {
    if (entry.name == nullptr || !entry.value.IsPresent()) continue;
    (registry::NodeOf(entry.value) != nullptr ? names.keys : names.values).emplace_back(entry.name);
  }
  return names;
}

struct FoundValue {
  bool exists = false;
  std::optional<std::string> text;  // of a string
};

FoundValue ValueIn(const CRegistryNode* key, std::string_view name) {
  if (key == nullptr) return {};
  const LockScope lock(key->Lock());
  const StrMapEntry* const entry = key->Find(std::string(name));
  const bool is_value = entry != nullptr && entry->value.IsPresent() && registry::NodeOf(entry->value) == nullptr;
  if (!is_value) return {};
  if (!registry::IsString(entry->value)) return {true, std::nullopt};
  return {true, registry::ValueOf(entry->value).bytes};
}

std::vector<std::string> PartsOf(std::string_view path) {
  std::vector<std::string> parts;
  for (std::size_t end = path.find('/'); end != std::string_view::npos; end = path.find('/')) {
    parts.emplace_back(path.substr(0, end));
    path.remove_prefix(end + 1);
  }
  parts.emplace_back(path);
  return parts;
}

std::string Joined(const std::string& above, const std::string& name) {
  return above.empty() ? name : above + "/" + name;
}

// The text of the value `name` in a key below `key`. The names of the keys on the way to it are those of `parts`, from
// `first` on. Empty if there is no such value.
std::string ValueOfNearName(const CRegistryNode* key, const std::vector<std::string>& parts, std::size_t first,
                            std::string_view name) {
  for (std::size_t i = first; i < parts.size() && key != nullptr; ++i) key = registry::FindKey(*key, parts[i]);
  return ValueIn(key, name).text.value_or("");
}

// Finds the first key of the path that is missing, and adds a mistake for each key there with a similar name.
void CheckPath(const CRegistryNode& tree, const std::string& path, std::string_view value, ReportSettings& settings) {
  const std::vector<std::string> parts = PartsOf(path);
  std::string above;
  const CRegistryNode* key = &tree;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const CRegistryNode* const next = registry::FindKey(*key, parts[i]);
    if (next == nullptr) {
      for (const std::string& near : NearNames(parts[i], NamesIn(*key).keys)) {
        const std::string meant = ValueOfNearName(registry::FindKey(*key, near), parts, i + 1, value);
        settings.mistakes.push_back({SettingMistake::Kind::kNearKey, above, near, parts[i], meant});
      }
      return;
    }
    key = next;
    above = Joined(above, parts[i]);
  }
}

// Sets `text` to the string `name` of the key. If there is no such string, adds mistakes: a value of that name that is
// not a string, or values with similar names.
bool TakeString(const CRegistryNode* key, const std::string& path, std::string_view name, std::string& text,
                std::vector<SettingMistake>& mistakes) {
  const FoundValue value = ValueIn(key, name);
  if (value.text) {
    text = *value.text;
    return true;
  }
  if (value.exists) {
    mistakes.push_back({SettingMistake::Kind::kNoString, path, std::string(name), std::string(name), ""});
    return false;
  }
  if (key == nullptr) return false;
  for (const std::string& near : NearNames(name, NamesIn(*key).values)) {
    mistakes.push_back(
        {SettingMistake::Kind::kNearValue, path, near, std::string(name), ValueIn(key, near).text.value_or("")});
  }
  return false;
}

// The suite's root, with "/" between names.
std::string RootOf(const CRegistryNode& tree, ReportSettings& settings) {
  const std::string path(kPointerKey);
  const CRegistryNode* const key = registry::FindKey(tree, path);
  std::string root;
  const bool is_read = TakeString(key, path, kRootPointer, root, settings.mistakes);
  if (key == nullptr) CheckPath(tree, path, kRootPointer, settings);
  if (!is_read || root.empty()) return std::string(kDefaultRoot);
  std::replace(root.begin(), root.end(), '\\', '/');
  return root;
}

}  // namespace

std::string_view ReportSettings::Name() const {
  if (source == Source::kDirectory) return kReportRoot;
  return source == Source::kDirectoryAbove ? kFileRoot : std::string_view();
}

ReportSettings ReadReportSettings(const CRegistryNode& tree) {
  ReportSettings settings;
  settings.setup_key = std::string(kLocalMachine) + "/" + RootOf(tree, settings) + "/Setup";
  const CRegistryNode* const key = registry::FindKey(tree, settings.setup_key);
  if (key == nullptr) {
    CheckPath(tree, settings.setup_key, kReportRoot, settings);
    return settings;
  }
  using Source = ReportSettings::Source;
  if (TakeString(key, settings.setup_key, kReportRoot, settings.value, settings.mistakes)) {
    settings.source = Source::kDirectory;
  } else if (TakeString(key, settings.setup_key, kFileRoot, settings.value, settings.mistakes)) {
    settings.source = Source::kDirectoryAbove;
  }
  return settings;
}

ReportSettings ReadReportSettings() {
  const CRegistry handle;  // loads the tree
  return ReadReportSettings(CRegistry::MRoot);
}

std::string WhatNamesTheDirectory(const ReportSettings& settings) {
  const std::string place = std::string(settings.Name()) + " in " + Visible(settings.setup_key);
  switch (settings.source) {
    case ReportSettings::Source::kDirectory:
      return place + " names that directory";
    case ReportSettings::Source::kDirectoryAbove:
      return place + " names the directory above it";
    case ReportSettings::Source::kNone:
      break;
  }
  const std::string none =
      "no registry value sets the report directory, so \"Reports\" in the working directory is used; ";
  if (settings.mistakes.empty()) return none + "\"qxctl setup\" sets one";
  const SettingMistake& first = settings.mistakes.front();
  const bool is_typo = first.kind != SettingMistake::Kind::kNoString;
  return none + Visible(first.found) + (is_typo ? " is nearly " + first.expected : " is not a string") +
         ", and \"qxctl doctor\" shows how to correct it";
}

}  // namespace qx::ctl
