// Backs up the report directory, and restores all of it or some reports.
#include "tools/qxctl/report/ReportBackupCommand.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "reportfile/tools/backup/BackupVerify.h"
#include "reportfile/tools/backup/DatedBackups.h"
#include "reportfile/tools/directory/StoreBackup.h"
#include "reportfile/tools/directory/StoreRestore.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/FileStatus.h"
#include "tools/qxctl/cli/LongStep.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/report/BackupItems.h"
#include "tools/qxctl/store/MissingReport.h"
#include "tools/qxctl/store/ReportDirectory.h"
#include "tools/qxctl/store/StoreFiles.h"

namespace qx::ctl {

namespace {

using report::BackupItem;
using report::BackupItemKind;
using report::BackupItemState;
using report::BackupResult;
using report::BackupState;
using report::RestoreAction;
using report::RestoreItem;
using report::RestoreResult;
using report::RestoreState;

struct Options {
  std::string directory;
  bool apply = false;
  report::RestoreOptions restore;
};

// "copied        load, report", with the first word in the colour of its meaning
std::string Line(const Output& output, Style style, const std::string& what, const std::string& name,
                 BackupItemKind kind) {
  char padded[24];
  std::snprintf(padded, sizeof padded, "%-13s ", what.c_str());
  return output.Paint(style, padded) + Visible(name) + ", " + NameOfKind(kind);
}

// --- backup

const char* NameOfItemState(const BackupItem& item) {
  if (item.kind == BackupItemKind::kSkipped || item.kind == BackupItemKind::kLink) return "not copied";
  switch (item.state) {
    case BackupItemState::kCopied:
      return "copied";
    case BackupItemState::kDamaged:
      return "damaged";
    case BackupItemState::kNeverStill:
      return "never still";
    case BackupItemState::kGone:
      return "gone";
    case BackupItemState::kUnreadable:
      return "unreadable";
  }
  return "";
}

Style StyleOf(const BackupItem& item) {
  const bool is_left_out = item.kind == BackupItemKind::kSkipped || item.kind == BackupItemKind::kLink ||
                           item.kind == BackupItemKind::kHalfStore || item.state == BackupItemState::kGone;
  if (item.state == BackupItemState::kCopied) return is_left_out ? Style::kWarning : Style::kGood;
  return is_left_out ? Style::kWarning : Style::kBad;
}

std::string ToText(const Output& output, const BackupResult& result) {
  std::string text;
  for (const BackupItem& item : result.items) {
    text += Line(output, StyleOf(item), NameOfItemState(item), item.name, item.kind);
    if (item.kind == BackupItemKind::kStore) text += ", records " + std::to_string(item.records);
    if (item.was_written) text += ", written meanwhile";
    text += "\n";
  }
  return text;
}

Json ToJson(const BackupResult& result, const std::string& from, const std::string& to,
            const std::vector<std::string>& removed, ExitCode code) {
  Json items = Json::Array();
  for (const BackupItem& item : result.items) {
    Json entry;
    SetText(entry, "name", item.name);
    entry["kind"] = NameOfKind(item.kind);
    entry["state"] = NameOfItemState(item);
    entry["records"] = item.records;
    entry["writtenMeanwhile"] = item.was_written;
    items.Append(std::move(entry));
  }
  Json document;
  SetText(document, "reportDirectory", from);
  SetText(document, "backup", to);
  document["items"] = std::move(items);
  document["removed"] = Json::Array();
  for (const std::string& name : removed) document["removed"].Append(name);
  document["exitCode"] = static_cast<int>(code);
  return document;
}

template <typename Predicate>
const BackupItem* FindItem(const BackupResult& result, Predicate predicate) {
  const auto found = std::find_if(result.items.begin(), result.items.end(), predicate);
  return found != result.items.end() ? &*found : nullptr;
}

// The status of the item with the worst outcome.
Status StatusOfItems(const BackupResult& result) {
  const auto has = [&result](BackupItemState state) {
    return FindItem(result, [state](const BackupItem& item) { return item.state == state; });
  };
  if (const BackupItem* const item = has(BackupItemState::kUnreadable)) {
    return Status::Io("the backup lacks " + item->name, item->error);
  }
  if (const BackupItem* const item = has(BackupItemState::kNeverStill)) {
    return {ExitCode::kChanged, "the backup lacks " + item->name + ": it changed during each attempt; try again"};
  }
  if (const BackupItem* const item = has(BackupItemState::kDamaged)) {
    return {ExitCode::kFinding, item->name + " is damaged and was copied as it is"};
  }
  const BackupItem* const odd = FindItem(result, [](const BackupItem& item) {
    return item.kind == BackupItemKind::kHalfStore || item.kind == BackupItemKind::kSkipped ||
           item.kind == BackupItemKind::kLink;
  });
  if (odd == nullptr) return {};
  if (odd->kind != BackupItemKind::kLink) return {ExitCode::kFinding, odd->name + " is " + NameOfKind(odd->kind)};
  return {ExitCode::kFinding, odd->name + " is a symbolic link, which a backup leaves out: back up its target"};
}

Status StatusOf(const BackupResult& result, const std::string& from, const std::string& to) {
  switch (result.state) {
    case BackupState::kDone:
      return StatusOfItems(result);
    case BackupState::kNotFound:
      return NoReportDirectory(from);
    case BackupState::kRefused:
      return {ExitCode::kRefused,
              to + " exists and is not empty, or is in the report directory; name another directory"};
    case BackupState::kFailed:
      return StatusOfReportFile("no backup was made: " + result.file, result.error);
  }
  return {};
}

Status BackupTo(Context& context, const Values& values, const std::string& from, const std::string& to) {
  const BackupResult result = [&] {
    const LongStep step(context.output, "copying " + from, [&] { return BytesBelow(from); });
    return report::BackupReports(from, to);
  }();
  Status status = StatusOf(result, from, to);
  if (result.state != BackupState::kDone) return status;
  return ShowResult(
      context, values, [&] { return ToJson(result, from, to, {}, status.Code()); },
      [&] { return ToText(context.output, result); }, status);
}

std::string ToText(const Output& output, const report::DatedBackup& made, const std::string& to) {
  std::string text = ToText(output, made.copy);
  text += output.Paint(Style::kGood, "made          ") + Visible(to) + "\n";
  for (const std::string& name : made.removed) {
    text += output.Paint(Style::kWarning, "removed       ") + Visible(name) + "\n";
  }
  return text;
}

Status StatusOf(const report::DatedBackup& made, const std::string& from, const std::string& directory) {
  if (made.is_busy) {
    return {ExitCode::kRefused, "another process makes a backup in " + directory + "; try again when it has ended"};
  }
  if (made.removal_error != 0) {
    return Status::Io("the backup was made, but the old one " + made.removal_name + " could not be removed",
                      made.removal_error);
  }
  return StatusOf(made.copy, from, directory);
}

Status BackupDated(Context& context, const Values& values, const std::string& from, const std::string& directory) {
  const report::DatedBackupOptions options = {.is_compressed = values.Flag("--compress"),
                                              .keep = static_cast<std::size_t>(values.Integer("--keep", 0)),
                                              .now = std::time(nullptr)};
  const report::DatedBackup made = [&] {
    const LongStep step(context.output, "copying " + from, [&] { return BytesBelow(from); });
    return report::MakeDatedBackup(from, directory, options);
  }();
  Status status = StatusOf(made, from, directory);
  if (made.name.empty()) return status;
  const std::string to = directory + "/" + made.name;
  return ShowResult(
      context, values, [&] { return ToJson(made.copy, from, to, made.removed, status.Code()); },
      [&] { return ToText(context.output, made, to); }, status);
}

Status Backup(Context& context, const Values& values) {
  std::string from;
  if (Status found = FindReportDirectory(from); !found.IsOk()) return found;
  const std::string to = values.Text("DIR");
  return values.Flag("--dated") ? BackupDated(context, values, from, to) : BackupTo(context, values, from, to);
}

// --- restore

const char* NameOfAction(RestoreAction action) {
  switch (action) {
    case RestoreAction::kAdd:
      return "add";
    case RestoreAction::kReplace:
      return "replace";
    case RestoreAction::kSame:
      return "same";
  }
  return "";
}

std::string WritersOfItem(const RestoreItem& item) {
  std::string text;
  for (const int process : item.writers) text += (text.empty() ? " by process " : ", ") + std::to_string(process);
  return text;
}

Style StyleOf(const RestoreItem& item) {
  if (item.is_damaged || item.is_being_written || item.is_link) return Style::kBad;
  return item.action == RestoreAction::kReplace ? Style::kWarning : Style::kGood;
}

std::string ToText(const Output& output, const RestoreResult& result) {
  std::string text;
  for (const RestoreItem& item : result.items) {
    text += Line(output, StyleOf(item), NameOfAction(item.action), item.name, item.kind);
    if (item.is_link) text += ", refused because of a symbolic link";
    if (item.is_damaged) text += ", damaged in the backup";
    if (item.is_being_written) text += ", being written" + WritersOfItem(item);
    text += "\n";
  }
  return text;
}

Json ToJson(const RestoreResult& result, const Options& options, const std::string& to, ExitCode code) {
  Json items = Json::Array();
  for (const RestoreItem& item : result.items) {
    Json entry;
    SetText(entry, "name", item.name);
    entry["kind"] = NameOfKind(item.kind);
    entry["action"] = NameOfAction(item.action);
    entry["link"] = item.is_link;
    entry["damaged"] = item.is_damaged;
    entry["beingWritten"] = item.is_being_written;
    entry["writers"] = Json::Array();
    for (const int process : item.writers) entry["writers"].Append(process);
    items.Append(std::move(entry));
  }
  Json document;
  SetText(document, "backup", options.directory);
  SetText(document, "reportDirectory", to);
  document["restored"] = result.state == RestoreState::kDone;
  document["items"] = std::move(items);
  document["exitCode"] = static_cast<int>(code);
  return document;
}

Status RefusedLink(const RestoreResult& result, ExitCode code) {
  const auto link =
      std::find_if(result.items.begin(), result.items.end(), [](const RestoreItem& item) { return item.is_link; });
  if (link == result.items.end()) return {};
  return {code, "nothing was changed: " + link->name +
                    " is, or is below, a symbolic link; replace the link by the file or directory"};
}

Status StatusOfPlan(const RestoreResult& result) {
  if (Status refused = RefusedLink(result, ExitCode::kFinding); !refused.IsOk()) return refused;
  const bool is_blocked = std::any_of(result.items.begin(), result.items.end(),
                                      [](const RestoreItem& item) { return item.is_damaged || item.is_being_written; });
  if (!is_blocked) return {ExitCode::kOk, "nothing was changed; --apply restores"};
  return {ExitCode::kFinding,
          "nothing was changed; stop the writers, check the damaged reports, or use --apply --force"};
}

Status FailedRestore(const RestoreResult& result, bool apply) {
  const std::string what = (apply ? "the restore is not complete: " : "cannot plan the restore: ") + result.file;
  if (result.error != 0) return StatusOfReportFile(what, result.error);
  return {ExitCode::kIo, what + " is not as in the backup"};
}

Status StatusOf(const RestoreResult& result, const Options& options, const std::string& to) {
  switch (result.state) {
    case RestoreState::kPlanned:
      return StatusOfPlan(result);
    case RestoreState::kDone:
      return {};
    case RestoreState::kNotFound:
      return {ExitCode::kNotFound, "there is no backup directory " + options.directory};
    case RestoreState::kNoSuchItem:
      return {ExitCode::kNotFound, options.directory + " has no report or file " + result.file};
    case RestoreState::kRefused:
      return {ExitCode::kRefused, "one of the directories " + options.directory + " and " + to +
                                      " contains the other; they must be separate"};
    case RestoreState::kLinked:
      return RefusedLink(result, ExitCode::kRefused);
    case RestoreState::kBlocked:
      return {ExitCode::kRefused, "nothing was changed; stop the writers, check the damaged reports, or use --force"};
    case RestoreState::kFailed:
      return FailedRestore(result, options.apply);
  }
  return {};
}

Options OptionsOf(const Values& values) {
  Options options;
  options.directory = values.Text("DIR");
  options.apply = values.Flag("--apply");
  options.restore.force = values.Flag("--force");
  options.restore.consume = values.Flag("--consume");
  options.restore.names = values.Texts("--report");
  return options;
}

Status StatusOf(const report::RestorableBackup& backup, const Options& options) {
  const std::string& directory = options.directory;
  if (backup.Error() == ENOENT || backup.Error() == ENOTDIR) {
    return {ExitCode::kNotFound, "there is no backup directory " + directory};
  }
  if (backup.Error() == EBADMSG) {
    return {ExitCode::kRefused, "nothing was changed: " + backup.Failed() + " in " + directory +
                                    " is not as it was when the backup was made; \"qxctl report verify-backup\" names "
                                    "everything that differs, --report restores what does not"};
  }
  if (backup.Error() != 0) return StatusOfReportFile("nothing was changed: " + backup.Failed(), backup.Error());
  if (!backup.IsDated() || !options.restore.consume) return {};
  return {ExitCode::kRefused, "--consume does not remove a dated backup; \"qxctl report backup --dated --keep\" does"};
}

RestoreResult RestoreWithProgress(const Output& output, const Options& options, const std::string& from,
                                  const std::string& to) {
  const LongStep step(output, (options.apply ? "restoring " : "comparing ") + to, [&] { return BytesBelow(from); });
  return options.apply ? report::RestoreReports(from, to, options.restore)
                       : report::PlanRestore(from, to, options.restore.names);
}

Status Restore(Context& context, const Values& values) {
  const Options options = OptionsOf(values);
  std::string to;
  if (Status found = FindReportDirectory(to); !found.IsOk()) return found;
  if (to.empty()) return {ExitCode::kNotFound, "the registry names no report directory"};
  const report::RestorableBackup backup(options.directory, options.restore.names, MakeExpandedDirectory);
  if (Status usable = StatusOf(backup, options); !usable.IsOk()) return usable;
  const RestoreResult result = RestoreWithProgress(context.output, options, backup.Path(), to);
  Status status = StatusOf(result, options, to);
  const bool has_items = result.state != RestoreState::kNotFound && result.state != RestoreState::kRefused &&
                         result.state != RestoreState::kNoSuchItem;
  if (!has_items) return status;
  return ShowResult(
      context, values, [&] { return ToJson(result, options, to, status.Code()); },
      [&] { return ToText(context.output, result); }, status);
}

// --- the commands

constexpr Parameter kParameters[] = {
    {.name = "DIR", .kind = ValueKind::kDirectory, .help = "Directory of the backup", .is_required = true},
    {.name = "--json", .help = "Print the result as JSON"},
};

constexpr Parameter kBackupParameters[] = {
    {.name = "--dated", .help = "Make the backup in DIR, with the time as its name, and with checksums"},
    {.name = "--compress", .help = "Compress each file", .needs = "--dated"},
    {.name = "--keep",
     .kind = ValueKind::kInteger,
     .value = "N",
     .help = "After the backup, remove the oldest ones in DIR, so that N are left",
     .limits = kPositiveInt32,
     .needs = "--dated"},
};

constexpr Parameter kRestoreParameters[] = {
    {.name = "--report",
     .kind = ValueKind::kText,
     .value = "NAME",
     .help = "Only the report or file of this name; may be repeated",
     .is_repeatable = true},
    {.name = "--apply", .help = "Restore; without it nothing is changed"},
    {.name = "--force",
     .help = "Restore even if a report is damaged in the backup or is being written",
     .needs = "--apply"},
    {.name = "--consume",
     .help = "Remove the backup once it is restored",
     .needs = "--apply",
     .excludes = {"--report"}},
};

constexpr Example kReportBackupExamples[] = {
    {"qxctl report backup backups/monday", "Copy the report directory"},
    {"qxctl report backup backups --dated --compress --keep 7", "Make a compressed backup, and keep the last seven"},
};

constexpr Example kReportRestoreExamples[] = {
    {"qxctl report restore backups/monday", "Show what would be restored"},
    {"qxctl report restore backups/monday --apply", "Restore it"},
    {"qxctl report restore backups/2026-01-31T10-00-00Z --report load --apply", "Restore one report"},
};

}  // namespace

constinit const Command kReportBackupCommand = {
    .words = "report backup",
    .help = "Copy the report directory, each report as it was at one moment",
    .run = Backup,
    .parameters = {kParameters, kBackupParameters},
    .examples = kReportBackupExamples};

constinit const Command kReportRestoreCommand = {.words = "report restore",
                                                 .help = "Restore a backup, or show what a restore would replace",
                                                 .run = Restore,
                                                 .parameters = {kParameters, kRestoreParameters},
                                                 .examples = kReportRestoreExamples};

}  // namespace qx::ctl
