// Changes a registry file. Without --apply, the commands only show what would change.
//
// The new text comes from the library's own writer. Before it replaces the old file, it is parsed by the library's
// reader and compared with the new tree. It is not saved through a CRegistry handle, because that hides failures.
#include "tools/qxctl/settings/RegistryEditCommand.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "registry/Registry.h"
#include "registry/tools/FileLint.h"
#include "registry/tools/TreeDiff.h"
#include "registry/tools/TreeEdit.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/settings/RegistryFiles.h"
#include "tools/qxctl/settings/RegistryText.h"
#include "tools/qxctl/settings/Settings.h"
#include "tools/qxctl/store/SettingCommands.h"

namespace qx::ctl {

namespace {

using registry::EditState;
using registry::TreeDifference;
using registry::TreeValue;

struct Options {
  RegistrySource source;
  EditOptions edit;
  std::string key;
  std::optional<std::string> name;
  std::string value;
  std::optional<int> type;
  bool recursive = false;
  bool create = false;                 // set: also if no registry file loads
  std::string file;                    // import
  std::optional<std::string> replace;  // import
};

// Reads the parameters that all three commands have.
Options OptionsOf(const Values& values) {
  Options options;
  options.source = RegistrySourceOf(values);
  options.edit = EditOptionsOf(values);
  return options;
}

using Change = std::function<Status(CRegistryNode& tree)>;

// --- reasons for no change

std::string ValueName(const Options& options) { return Visible(options.name.value_or("")); }

Status StatusOfChange(EditState state, const Options& options) {
  const std::string key = Visible(options.key);
  switch (state) {
    case EditState::kDone:
      return {};
    case EditState::kNoHive:
      return {ExitCode::kRefused,
              "paths begin with a hive, such as HKEY_LOCAL_MACHINE/SOFTWARE; programs do not read " + key};
    case EditState::kNoKey:
      return {ExitCode::kNotFound, "there is no key " + key};
    case EditState::kNoValue:
      return {ExitCode::kNotFound, "the key " + key + " has no value " + ValueName(options)};
    case EditState::kIsValue:
      return {ExitCode::kRefused, "a name on the path " + key + " is that of a value, not of a key"};
    case EditState::kIsKey:
      return {ExitCode::kRefused, ValueName(options) + " is a key below " + key + "; delete it first, as a key"};
    case EditState::kNotEmpty:
      return {ExitCode::kRefused, "the key " + key + " is not empty; --recursive deletes it with everything in it"};
    case EditState::kHoldsNul:
      return {ExitCode::kRefused, "the registry cannot store a name or a text with a NUL byte"};
    case EditState::kBadType:
      return {ExitCode::kRefused,
              "the registry cannot store this value: its type is not known, or it is a number of "
              "another size than 4 bytes"};
    case EditState::kNoMemory:
      return {ExitCode::kIo, "there is not enough memory"};
  }
  return {};
}

Status StatusOfRefusal(const registry::Refusal& refusal) {
  const std::string place =
      refusal.key.empty() && refusal.name.empty()
          ? "the registry"
          : Visible(refusal.name) + " in " + (refusal.key.empty() ? "(root)" : Visible(refusal.key));
  return {ExitCode::kRefused, "the file cannot store " + place + ": " + refusal.reason};
}

// Refuses a file that a load misreads, and warns of lines that it does not read: a save would make both final.
Status CheckReading(Context& context, const std::string& file, std::string_view bytes, const Options& options) {
  const registry::LintResult lint = registry::LintFile(bytes);
  const std::string hint = "; check it with qxctl registry lint --file " + file;
  if (lint.errors > 0 && !options.edit.force) {
    return {ExitCode::kRefused, "a load misreads " + std::to_string(lint.errors) + " line(s) of " + file +
                                    ", and a save would store what was misread" + hint + ", or use --force"};
  }
  if (lint.warnings > 0) {
    context.output.Problem(std::to_string(lint.warnings) + " line(s) of " + file +
                           " are unusual or are not read, and a save drops lines that are not read" + hint);
  }
  return {};
}

// The older or default copy that a service loads if the registry file has no value; empty if there is no such copy.
std::string FallbackOf(const RegistrySource& source) {
  if (!source.file.empty()) return "";
  for (const char* const name : {"registry.old", "registry.default"}) {
    CRegistryNode tree;
    std::string path = source.directory + "/" + name;
    if (CRegistry::ReadTree(path.c_str(), tree)) return path;
  }
  return "";
}

// Whether a first value may be set although the registry file does not load. If a copy loads, a new registry would hide
// the settings of that copy.
Status CheckFirst(const Options& options) {
  const std::string fallback = FallbackOf(options.source);
  if (fallback.empty()) return {};
  return {ExitCode::kRefused, "services load " + fallback +
                                  ", because the registry file does not load; import it first: \"" +
                                  SettingCommands(options.source.directory).Import(fallback) + "\""};
}

// Checks that the directory of a new registry exists.
Status CheckDirectory(const Options& options) {
  std::error_code error;
  const std::string directory = file::DirectoryOf(options.source.Path());
  if (!options.create || std::filesystem::exists(directory, error)) return {};
  return {ExitCode::kNotFound, "there is no directory " + directory + "; \"" +
                                   SettingCommands(options.source.directory).Setup() + "\" makes it"};
}

Status CheckLoads(const std::string& file, bool loads) {
  if (loads) return {};
  return {ExitCode::kRefused, file +
                                  " does not load, so services use registry.old or registry.default; replace it "
                                  "by one of them with qxctl registry import FILE --replace \"\""};
}

// --- the edit

// The old tree, the new one, and the text of the file.
struct Plan {
  CRegistryNode before;
  CRegistryNode after;
  std::string text;
  TreeDifference difference;
};

Status MakePlan(const FileImage& image, const Change& change, Plan& plan) {
  // A file that does not load counts as empty. If it must load, an earlier check has refused it.
  (void)registry::ParseTree(image.bytes, plan.before);
  (void)registry::ParseTree(image.bytes, plan.after);
  if (Status status = change(plan.after); !status.IsOk()) return status;
  if (const auto refusal = registry::WhyNotStorable(plan.after, plan.text)) return StatusOfRefusal(*refusal);
  plan.difference = registry::Compare(plan.before, plan.after);
  return {};
}

Status Apply(Context& context, ReplacedFile& edit, const Plan& plan) {
  if (Status status = StatusOfEdit(edit.WriteCopy(plan.text)); !status.IsOk()) return status;
  Status committed = StatusOfEdit(edit.Commit(true));
  if (!edit.IsInPlace()) return committed;
  if (!edit.BackupPath().empty()) context.output.Note("qxctl: the old file is kept in " + edit.BackupPath());
  context.output.Problem(
      "a running service does not see the change before its restart; if it saves its own registry before that, the "
      "change is lost");
  return committed;
}

Json ToJson(const Plan& plan, const Options& options, const ReplacedFile& edit) {
  Json document;
  SetText(document, "file", options.source.Path());
  document["changes"] = ChangesToJson(plan.difference);
  document["allChanges"] = plan.difference.is_complete;
  document["applied"] = edit.IsInPlace();
  document["backup"] = nullptr;
  if (!edit.BackupPath().empty()) SetText(document, "backup", edit.BackupPath());
  return document;
}

// Whether the file must load before `change` uses it.
enum class OldTree { kNeeded, kReplaced };

Status CheckOldTree(Context& context, const std::string& path, const FileImage& image, const Options& options) {
  CRegistryNode probe;
  const bool loads = registry::ParseTree(image.bytes, probe);
  if (!loads && options.create) return CheckFirst(options);
  if (Status status = CheckLoads(path, loads); !status.IsOk()) return status;
  return CheckReading(context, path, image.bytes, options);
}

Status Edit(Context& context, const Values& values, const Options& options, OldTree old_tree, const Change& change) {
  const InterruptGuard guard;  // a signal ends the command only after the edit
  const std::string path = options.source.Path();
  if (Status status = CheckDirectory(options); !status.IsOk()) return status;
  ReplacedFile edit;
  const bool may_be_missing = old_tree == OldTree::kReplaced || options.create;
  if (Status status = BeginEdit(edit, path, options.edit, may_be_missing); !status.IsOk()) return status;
  Plan plan;
  if (old_tree == OldTree::kNeeded) {
    if (Status status = CheckOldTree(context, path, edit.Image(), options); !status.IsOk()) return status;
  }
  if (Status status = MakePlan(edit.Image(), change, plan); !status.IsOk()) return status;
  const bool has_changes = !plan.difference.changes.empty() || !edit.Image().exists;
  Status applied;
  if (options.edit.apply && has_changes) applied = Apply(context, edit, plan);
  if (options.edit.apply && has_changes && !edit.IsInPlace()) return applied;
  if (!plan.difference.is_complete) context.output.Problem("there are more changes than are listed");
  Status printed = ShowResult(
      context, values, [&] { return ToJson(plan, options, edit); },
      [&] { return ChangesToText(context.output, plan.difference); });
  if (!printed.IsOk()) return printed;
  return applied.IsOk() ? EditDone(options.edit, has_changes) : applied;
}

// --- set

// Parses a number from -2147483648 to 4294967295. A hexadecimal number, such as "0x1F", has no sign.
bool ParseNumber(std::string_view text, std::string& bytes) {
  const bool is_hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (is_hexadecimal) text.remove_prefix(2);
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, is_hexadecimal ? 16 : 10);
  const bool is_whole = error == std::errc() && end == text.data() + text.size();
  if (!is_whole || number > UINT32_MAX || number < (is_hexadecimal ? 0 : INT32_MIN)) return false;
  const auto low = static_cast<std::uint32_t>(number);
  bytes.assign(reinterpret_cast<const char*>(&low), sizeof low);
  return true;
}

int DigitOf(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// Two digits for each byte, with or without a space between bytes: "0a ff", "0aff".
bool ParseBlock(std::string_view text, std::string& bytes) {
  bytes.clear();
  while (!text.empty()) {
    const int high = DigitOf(text[0]);
    const int low = text.size() > 1 ? DigitOf(text[1]) : -1;
    if (high < 0 || low < 0) return false;
    bytes += static_cast<char>(high * 16 + low);
    text.remove_prefix(2);
    if (text.size() > 1 && text.front() == ' ') text.remove_prefix(1);
  }
  return true;
}

Status ParseValue(const std::string& text, int type, TreeValue& value) {
  value = {type, text};
  if (type == REG_DWORD && !ParseNumber(text, value.bytes)) {
    return {ExitCode::kUsage, Visible(text) + " is not a number from -2147483648 to 4294967295"};
  }
  if (type == REG_BINARY && !ParseBlock(text, value.bytes)) {
    return {ExitCode::kUsage,
            Visible(text) + " is not a block; write two hexadecimal digits for each byte, such as \"0a ff\""};
  }
  return {};
}

// The requested type, else that of the existing value, else a string.
int TypeFor(const Options& options, const CRegistryNode& tree) {
  if (options.type) return *options.type;
  const CRegistryNode* const key = registry::FindKey(tree, options.key);
  const StrMapEntry* const entry = key != nullptr ? key->Find(*options.name) : nullptr;
  const bool is_value = entry != nullptr && entry->value.IsPresent() && entry->value.type != REG_NODE;
  return is_value ? entry->value.type : REG_SZ;
}

constexpr std::string_view kTypeNames[] = {"string", "expand", "binary", "dword"};
constexpr int kTypes[] = {REG_SZ, REG_EXPAND_SZ, REG_BINARY, REG_DWORD};

int TypeNamed(const std::string& name) {
  const auto* const found = std::find(std::begin(kTypeNames), std::end(kTypeNames), name);
  return kTypes[found - std::begin(kTypeNames)];
}

Status RunSet(Context& context, const Values& values) {
  Options options = OptionsOf(values);
  options.key = values.Text("KEY");
  options.name = values.Text("NAME");
  options.value = values.Text("VALUE");
  if (values.Has("--type")) options.type = TypeNamed(values.Text("--type"));
  options.create = values.Flag("--create");
  return Edit(context, values, options, OldTree::kNeeded, [&options](CRegistryNode& tree) {
    TreeValue value;
    if (Status status = ParseValue(options.value, TypeFor(options, tree), value); !status.IsOk()) return status;
    return StatusOfChange(registry::SetValue(tree, options.key, *options.name, value), options);
  });
}

// --- delete, import

Status RunDelete(Context& context, const Values& values) {
  Options options = OptionsOf(values);
  options.key = values.Text("KEY");
  if (values.Has("NAME")) options.name = values.Text("NAME");
  options.recursive = values.Flag("--recursive");
  return Edit(context, values, options, OldTree::kNeeded, [&options](CRegistryNode& tree) {
    const EditState state = options.name ? registry::DeleteValue(tree, options.key, *options.name)
                                         : registry::DeleteKey(tree, options.key, options.recursive);
    return StatusOfChange(state, options);
  });
}

Status Import(Context& context, const Values& values) {
  Options options = OptionsOf(values);
  options.file = values.Text("FILE");
  if (values.Has("--replace")) options.replace = values.Text("--replace");
  CRegistryNode imported;
  std::string bytes;
  if (Status status = ReadTreeFile(options.file, imported, bytes); !status.IsOk()) return status;
  if (Status status = CheckReading(context, options.file, bytes, options); !status.IsOk()) return status;
  const bool replaces_all = options.replace && options.replace->empty();
  if (options.replace && registry::FindKey(imported, *options.replace) == nullptr) {
    return {ExitCode::kNotFound, options.file + " has no key " + Visible(*options.replace)};
  }
  return Edit(context, values, options, replaces_all ? OldTree::kReplaced : OldTree::kNeeded, [&](CRegistryNode& tree) {
    if (options.replace) registry::EmptyKey(tree, *options.replace);
    return StatusOfChange(registry::MergeInto(tree, imported), options);
  });
}

// --- the commands

constexpr Parameter kForceParameters[] = {
    {.name = "--force",
     .help = "Change the file even if it is a symbolic link or would be misread, or if other users may write its "
             "directory"},
};

constexpr Parameter kSetParameters[] = {
    {.name = "KEY",
     .kind = ValueKind::kRegistryKey,
     .help = "Path of the key, beginning with a hive",
     .is_required = true},
    {.name = "NAME", .kind = ValueKind::kRegistryValue, .help = "Name of the value", .is_required = true},
    {.name = "VALUE",
     .kind = ValueKind::kText,
     .help = "A text, a number, or bytes such as \"0a ff\"",
     .is_required = true},
    {.name = "--type",
     .kind = ValueKind::kText,
     .value = "TYPE",
     .help = "string, expand, dword or binary (default: the present type; of a new value: string)",
     .choices = kTypeNames,
     .ignores_case = true},
    {.name = "--create", .help = "Create the registry if no file of it has a value"},
};

constexpr Parameter kDeleteParameters[] = {
    {.name = "KEY",
     .kind = ValueKind::kRegistryKey,
     .help = "Path of the key, beginning with a hive",
     .is_required = true},
    {.name = "NAME", .kind = ValueKind::kRegistryValue, .help = "Name of the value; without it: the key itself"},
    {.name = "--recursive", .letter = "-r", .help = "Delete the key with everything in it", .excludes = {"NAME"}},
};

constexpr Parameter kImportParameters[] = {
    {.name = "FILE", .kind = ValueKind::kFile, .help = "The registry file; - for standard input", .is_required = true},
    {.name = "--replace",
     .kind = ValueKind::kRegistryKey,
     .value = "KEY",
     .help = "Make this key equal to the one in FILE; with \"\" the whole registry"},
};

constexpr Example kRegistrySetExamples[] = {
    {"qxctl registry set HKEY_LOCAL_MACHINE/SOFTWARE Count 7 --type dword", "Show what would change"},
    {"qxctl registry set HKEY_LOCAL_MACHINE/SOFTWARE Count 7 --type dword --apply", "Change it"},
};

constexpr Example kRegistryDeleteExamples[] = {
    {"qxctl registry delete HKEY_LOCAL_MACHINE/SOFTWARE Count --apply", "Delete a value"},
    {"qxctl registry delete HKEY_LOCAL_MACHINE/SOFTWARE/Old --recursive --apply", "Delete a key with everything in it"},
};

constexpr Example kRegistryImportExamples[] = {
    {"qxctl registry import new.reg --apply", "Set the values of a file, keep the others"},
    {"qxctl registry import backup.reg --replace '' --apply", "Make the registry equal to a file"},
};

}  // namespace

constinit const Command kRegistrySetCommand = {
    .words = "registry set",
    .help = "Set one value, and create the missing keys of its path",
    .run = RunSet,
    .parameters = {kRegistryParameters, kEditParameters, kForceParameters, kSetParameters},
    .examples = kRegistrySetExamples};

constinit const Command kRegistryDeleteCommand = {
    .words = "registry delete",
    .help = "Delete one value, or a key",
    .run = RunDelete,
    .parameters = {kRegistryParameters, kEditParameters, kForceParameters, kDeleteParameters},
    .examples = kRegistryDeleteExamples};

constinit const Command kRegistryImportCommand = {
    .words = "registry import",
    .help = "Set the keys and values of another registry file",
    .run = Import,
    .parameters = {kRegistryParameters, kEditParameters, kForceParameters, kImportParameters},
    .examples = kRegistryImportExamples};

}  // namespace qx::ctl
