// Edits profile files. Without --apply, the commands only show what would change.
#include "tools/qxctl/settings/IniEditCommand.h"

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "inifile/tools/ProfileEdit.h"
#include "inifile/tools/ProfileText.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/settings/Settings.h"

namespace qx::ctl {

namespace {

using inifile::ProfileChange;
using inifile::ProfilePlan;
using inifile::ProfileRequest;
using inifile::ProfileState;

struct Options {
  EditOptions edit;
  std::string file;
  std::string section;
  bool create = false;
  std::optional<std::string> new_name;  // copy
  std::optional<std::string> to;        // copy
};

// Reads the parameters that all three commands have.
Options OptionsOf(const Values& values) {
  Options options;
  options.edit = EditOptionsOf(values);
  options.file = values.Text("FILE");
  options.section = values.Text("SECTION");
  return options;
}

// --- output

// The lines of one section below its header, as `ini list` shows them.
std::string ToText(const Output& output, const ProfilePlan& plan) {
  std::string text;
  const ProfileChange* last = nullptr;
  for (const ProfileChange& change : plan.changes) {
    const std::string header = "[" + Visible(change.section) + "]";
    if (change.is_section) {
      text += change.before ? Removed(output, header) : Added(output, header);
    } else {
      if (last == nullptr) text += header + "\n";
      const std::string key = Visible(change.key) + "=";
      if (change.before) text += Removed(output, key + Visible(*change.before));
      if (change.after) text += Added(output, key + Visible(*change.after));
    }
    last = &change;
  }
  return text;
}

void SetOptionalText(Json& object, const std::string& key, const std::optional<std::string>& text) {
  object[key] = nullptr;
  if (text) SetText(object, key, *text);
}

Json ToJson(const ProfileChange& change) {
  Json entry;
  SetText(entry, "section", change.section);
  SetOptionalText(entry, "key", change.is_section ? std::nullopt : std::optional(change.key));
  SetOptionalText(entry, "before", change.before);
  SetOptionalText(entry, "after", change.after);
  return entry;
}

Json ToJson(const ProfilePlan& plan, const std::string& file, bool is_applied) {
  Json changes = Json::Array();
  for (const ProfileChange& change : plan.changes) changes.Append(ToJson(change));
  Json document;
  SetText(document, "file", file);
  document["changes"] = std::move(changes);
  document["completesLastLine"] = plan.completes_last_line;
  document["applied"] = is_applied;
  return document;
}

// --- the edit

Status StatusOfPlan(const ProfilePlan& plan, const std::string& file, const ProfileRequest& request) {
  switch (plan.state) {
    case ProfileState::kDone:
      return {};
    case ProfileState::kNoSection:
      return {ExitCode::kNotFound,
              file + " has no section [" + Visible(request.section) + "]; names are case-sensitive"};
    case ProfileState::kNoKey:
      return {ExitCode::kNotFound, "the section [" + Visible(request.section) + "] has no key " + Visible(request.key)};
    case ProfileState::kRefused:
      return {ExitCode::kRefused, file + " cannot be changed in this way: " + plan.reason};
  }
  return {};
}

Status NotSound(const std::string& file, const std::string& reason) {
  if (reason.empty()) return {};
  return {ExitCode::kIo, file + " was not changed: " + reason};
}

// Programs read the new file at the next access, so no note about a restart is printed.
Status Apply(ReplacedFile& edit, const ProfilePlan& plan, const std::string& file) {
  if (Status status = NotSound(file, inifile::TryPlan(plan, edit.Image().bytes)); !status.IsOk()) return status;
  if (Status status = StatusOfEdit(edit.WriteCopy(plan.text)); !status.IsOk()) return status;
  return StatusOfEdit(edit.Commit(false));
}

void PrintRemarks(Context& context, const ProfilePlan& plan) {
  if (plan.completes_last_line) {
    context.output.Note("qxctl: the last line has no line feed, so a new entry would continue it; one is added");
  }
  for (const ProfileChange& change : plan.changes) {
    if (change.is_section || !change.after || !change.after->empty()) continue;
    context.output.Note("qxctl: an empty value counts as missing: programs take their default for " +
                        Visible(change.key));
  }
}

Status Edit(Context& context, const Values& values, const Options& options, const ProfileRequest& request) {
  const std::string& file = options.to ? *options.to : options.file;
  const InterruptGuard guard;  // a signal ends the command only after the edit
  ReplacedFile edit;
  if (Status status = BeginEdit(edit, file, options.edit, options.create); !status.IsOk()) {
    const bool may_help = status.Code() == ExitCode::kNotFound && request.kind == ProfileRequest::Kind::kSet;
    return may_help ? Status(status.Code(), status.Message() + "; --create makes it") : status;
  }
  const std::string& text = edit.Image().bytes;
  const ProfilePlan plan = inifile::PlanEdit(text, request);
  if (Status status = StatusOfPlan(plan, file, request); !status.IsOk()) return status;
  const bool has_changes = !plan.changes.empty();
  Status done;
  if (has_changes) {
    PrintRemarks(context, plan);
    done = options.edit.apply ? Apply(edit, plan, file) : NotSound(file, inifile::TryPlan(plan, text));
    if (!done.IsOk() && !edit.IsInPlace()) return done;
  }
  Status shown = ShowResult(
      context, values, [&] { return ToJson(plan, file, edit.IsInPlace()); },
      [&] { return ToText(context.output, plan); });
  if (!shown.IsOk()) return shown;
  return done.IsOk() ? EditDone(options.edit, has_changes) : done;
}

// --- the commands

Status RunSet(Context& context, const Values& values) {
  Options options = OptionsOf(values);
  options.create = values.Flag("--create");
  return Edit(context, values, options,
              {.section = options.section, .key = {}, .entries = {{values.Text("KEY"), values.Text("VALUE")}}});
}

Status RunDelete(Context& context, const Values& values) {
  const Options options = OptionsOf(values);
  const auto kind = values.Has("KEY") ? ProfileRequest::Kind::kDeleteKey : ProfileRequest::Kind::kDeleteSection;
  return Edit(context, values, options,
              {.kind = kind, .section = options.section, .key = values.Text("KEY"), .entries = {}});
}

// Reads the entries as programs do: if a key occurs twice, the first value counts.
Status ReadSection(const Options& options, std::vector<inifile::ProfileEntry>& entries) {
  FileImage image;
  if (Status status = StatusOfEdit(ReadFileImage(options.file, image)); !status.IsOk()) return status;
  const inifile::ProfileContent content = inifile::ReadThroughClass(options.file);
  const auto section = content.entries.find(options.section);
  if (section == content.entries.end()) {
    return {ExitCode::kNotFound,
            options.file + " has no section [" + Visible(options.section) + "]; names are case-sensitive"};
  }
  std::set<std::string> keys;
  for (const inifile::ProfileEntry& entry : section->second) {
    if (keys.insert(entry.key).second) entries.push_back(entry);
  }
  return {};
}

Status Copy(Context& context, const Values& values) {
  Options options = OptionsOf(values);
  options.create = values.Flag("--create");
  if (values.Has("NEW")) options.new_name = values.Text("NEW");
  if (values.Has("--to")) options.to = values.Text("--to");
  if (!options.new_name && !options.to) return {ExitCode::kUsage, "name the new section, or another file with --to"};
  ProfileRequest request = {.section = options.new_name.value_or(options.section), .key = {}, .entries = {}};
  if (Status status = ReadSection(options, request.entries); !status.IsOk()) return status;
  if (request.entries.empty()) {
    return {ExitCode::kRefused, "the section [" + Visible(options.section) + "] has no entries to copy"};
  }
  return Edit(context, values, options, request);
}

// --- the commands

constexpr Parameter kSectionParameters[] = {
    {.name = "FILE", .kind = ValueKind::kFile, .help = "The profile file", .is_required = true},
    {.name = "SECTION",
     .kind = ValueKind::kIniSection,
     .help = "The section's name, without brackets",
     .is_required = true},
};

constexpr Parameter kForceParameters[] = {
    {.name = "--force",
     .help = "Change the file even if it is a symbolic link, or if other users may write its directory"}};

constexpr Parameter kSetParameters[] = {
    {.name = "KEY", .kind = ValueKind::kIniKey, .help = "The key's name", .is_required = true},
    {.name = "VALUE", .kind = ValueKind::kText, .help = "The new value", .is_required = true},
    {.name = "--create", .help = "Create the file if it is missing"},
};

constexpr Parameter kDeleteParameters[] = {
    {.name = "KEY", .kind = ValueKind::kIniKey, .help = "The key's name; without it: the whole section"},
};

constexpr Parameter kCopyParameters[] = {
    {.name = "NEW", .kind = ValueKind::kIniSection, .help = "Name of the target section (default: the same name)"},
    {.name = "--to", .kind = ValueKind::kFile, .value = "FILE", .help = "Target file (default: the same file)"},
    {.name = "--create", .help = "Create the file if it is missing"},
};

constexpr Example kIniSetExamples[] = {
    {"qxctl ini set limits.ini Limits high 95", "Show what would change"},
    {"qxctl ini set limits.ini Limits high 95 --create --apply", "Change it, and make the file if it is missing"},
};

constexpr Example kIniDeleteExamples[] = {
    {"qxctl ini delete limits.ini Limits high --apply", "Delete an entry"},
    {"qxctl ini delete limits.ini Limits --apply", "Delete a section"},
};

constexpr Example kIniCopyExamples[] = {
    {"qxctl ini copy limits.ini Limits Night --apply", "Copy the entries into another section"},
    {"qxctl ini copy limits.ini Limits --to other.ini --create --apply", "Copy them into another file"},
};

}  // namespace

constinit const Command kIniSetCommand = {
    .words = "ini set",
    .help = "Set one value, leaving every other line as it is",
    .run = RunSet,
    .parameters = {kSectionParameters, kEditParameters, kForceParameters, kSetParameters},
    .examples = kIniSetExamples};

constinit const Command kIniDeleteCommand = {
    .words = "ini delete",
    .help = "Delete a key, or a section",
    .run = RunDelete,
    .parameters = {kSectionParameters, kEditParameters, kForceParameters, kDeleteParameters},
    .examples = kIniDeleteExamples};

constinit const Command kIniCopyCommand = {
    .words = "ini copy",
    .help = "Copy the entries of a section into another",
    .run = Copy,
    .parameters = {kSectionParameters, kEditParameters, kForceParameters, kCopyParameters},
    .examples = kIniCopyExamples};

}  // namespace qx::ctl
