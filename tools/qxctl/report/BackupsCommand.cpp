// Lists the dated backups of a directory, and verifies one backup.
#include "tools/qxctl/report/BackupsCommand.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "reportfile/tools/backup/BackupVerify.h"
#include "reportfile/tools/backup/DatedBackups.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/FileStatus.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/LongStep.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Table.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/report/BackupItems.h"
#include "tools/qxctl/store/StoreFiles.h"

namespace qx::ctl {

namespace {

using report::BackupItemKind;
using report::BackupList;
using report::ListedBackup;
using report::ListedState;
using report::VerifiedBackup;
using report::VerifiedItem;
using report::VerifiedState;

// --- the list

const char* NameOfState(ListedState state) {
  switch (state) {
    case ListedState::kWhole:
      return "whole";
    case ListedState::kIncomplete:
      return "incomplete";
    case ListedState::kDamaged:
      return "damaged";
    case ListedState::kUnfinished:
      return "unfinished";
  }
  return "";
}

std::string ToText(const Output& output, const BackupList& list) {
  std::vector<TableRow> rows = {{"backup", "reports", "bytes", "compressed", "state"}};
  for (const ListedBackup& backup : list.backups) {
    const Style style = backup.state == ListedState::kWhole     ? Style::kGood
                        : backup.state == ListedState::kDamaged ? Style::kBad
                                                                : Style::kWarning;
    std::string state = output.Paint(style, NameOfState(backup.state));
    if (backup.left_out != 0) state += ", left out " + std::to_string(backup.left_out);
    rows.push_back({Visible(backup.name), std::to_string(backup.reports), std::to_string(backup.bytes),
                    backup.is_compressed ? "yes" : "no", std::move(state)});
  }
  return rows.size() > 1 ? TableText(rows) : "";
}

Json ToJson(const BackupList& list, const std::string& directory, ExitCode code) {
  Json backups = Json::Array();
  for (const ListedBackup& backup : list.backups) {
    Json entry;
    SetText(entry, "name", backup.name);
    entry["state"] = NameOfState(backup.state);
    entry["compressed"] = backup.is_compressed;
    entry["reports"] = backup.reports;
    entry["leftOut"] = backup.left_out;
    entry["bytes"] = backup.bytes;
    backups.Append(std::move(entry));
  }
  Json document;
  SetText(document, "directory", directory);
  document["backups"] = std::move(backups);
  document["exitCode"] = static_cast<int>(code);
  return document;
}

Status StatusOf(const BackupList& list, const std::string& directory) {
  const auto damaged = std::find_if(list.backups.begin(), list.backups.end(),
                                    [](const ListedBackup& backup) { return backup.state == ListedState::kDamaged; });
  if (damaged != list.backups.end()) return {ExitCode::kFinding, damaged->name + " is damaged"};
  if (list.backups.empty()) return {ExitCode::kOk, "there is no dated backup in " + directory};
  return {};
}

Status ListBackups(Context& context, const Values& values) {
  const std::string directory = values.Text("DIR");
  const BackupList list = report::ListBackups(directory);
  if (list.error == ENOENT || list.error == ENOTDIR) {
    return {ExitCode::kNotFound, "there is no directory " + directory};
  }
  if (list.error != 0) return StatusOfReportFile(directory, list.error);
  const Status status = StatusOf(list, directory);
  return ShowResult(
      context, values, [&] { return ToJson(list, directory, status.Code()); },
      [&] { return ToText(context.output, list); }, status);
}

// --- verify

const char* NameOfState(VerifiedState state) {
  switch (state) {
    case VerifiedState::kSound:
      return "sound";
    case VerifiedState::kDamaged:
      return "damaged";
    case VerifiedState::kChanged:
      return "changed";
    case VerifiedState::kMissing:
      return "missing";
    case VerifiedState::kUnlisted:
      return "unlisted";
    case VerifiedState::kUnreadable:
      return "unreadable";
  }
  return "";
}

std::string ToText(const Output& output, const VerifiedBackup& verified) {
  std::string text;
  for (const VerifiedItem& item : verified.items) {
    const bool is_good = item.state == VerifiedState::kSound;
    std::string state = NameOfState(item.state);
    state.resize(14, ' ');
    text +=
        output.Paint(is_good ? Style::kGood : Style::kBad, state) + Visible(item.name) + ", " + NameOfKind(item.kind);
    if (item.kind == BackupItemKind::kStore) text += ", records " + std::to_string(item.records);
    text += "\n";
  }
  for (const std::string& line : verified.left_out) {
    text += output.Paint(Style::kWarning, "left out      ") + Visible(line) + "\n";
  }
  return text;
}

Json ToJson(const VerifiedBackup& verified, const std::string& directory, ExitCode code) {
  Json items = Json::Array();
  for (const VerifiedItem& item : verified.items) {
    Json entry;
    SetText(entry, "name", item.name);
    entry["kind"] = NameOfKind(item.kind);
    entry["state"] = NameOfState(item.state);
    entry["records"] = item.records;
    items.Append(std::move(entry));
  }
  Json document;
  SetText(document, "backup", directory);
  document["checksums"] = verified.has_checksums;
  document["compressed"] = verified.is_compressed;
  document["items"] = std::move(items);
  document["leftOut"] = verified.left_out.size();
  document["exitCode"] = static_cast<int>(code);
  return document;
}

const VerifiedItem* FirstItem(const VerifiedBackup& verified, bool (*is_requested)(VerifiedState)) {
  const auto found = std::find_if(verified.items.begin(), verified.items.end(),
                                  [&](const VerifiedItem& item) { return is_requested(item.state); });
  return found != verified.items.end() ? &*found : nullptr;
}

Status StatusOf(const VerifiedBackup& verified) {
  if (const auto* const item =
          FirstItem(verified, [](VerifiedState state) { return state == VerifiedState::kUnreadable; })) {
    return Status::Io(item->name, item->error);
  }
  if (const auto* const item =
          FirstItem(verified, [](VerifiedState state) { return state != VerifiedState::kSound; })) {
    return {ExitCode::kFinding, item->name + " is " + NameOfState(item->state)};
  }
  if (!verified.left_out.empty()) {
    return {ExitCode::kFinding,
            "the files are as they were copied, but the backup is not complete: \"left out\" names what it lacks"};
  }
  return {};
}

Status VerifyBackup(Context& context, const Values& values) {
  const std::string directory = values.Text("DIR");
  const VerifiedBackup verified = [&] {
    const LongStep step(context.output, "reading " + directory, [&] { return BytesBelow(directory); });
    return report::VerifyBackup(directory, MakeExpandedDirectory);
  }();
  if (verified.error == ENOENT || verified.error == ENOTDIR) {
    return {ExitCode::kNotFound, "there is no backup directory " + directory};
  }
  if (verified.error == EBADMSG) {
    return {ExitCode::kFinding, directory + " is not a whole backup: " + verified.file + " is missing or damaged"};
  }
  if (verified.error != 0) return StatusOfReportFile(verified.file, verified.error);
  const Status status = StatusOf(verified);
  return ShowResult(
      context, values, [&] { return ToJson(verified, directory, status.Code()); },
      [&] { return ToText(context.output, verified); }, status);
}

// --- the commands

constexpr Parameter kBackupsParameters[] = {
    {.name = "DIR", .kind = ValueKind::kDirectory, .help = "Directory with dated backups", .is_required = true},
    {.name = "--json", .help = "Print the list as JSON"},
};

constexpr Parameter kVerifyBackupParameters[] = {
    {.name = "DIR", .kind = ValueKind::kDirectory, .help = "Directory of the backup", .is_required = true},
    {.name = "--json", .help = "Print the result as JSON"},
};

constexpr Example kBackupsExamples[] = {
    {"qxctl report backups /var/backups/reports", "List the dated backups"},
};

constexpr Example kVerifyBackupExamples[] = {
    {"qxctl report verify-backup backups/2026-01-31T10-00-00Z", "Compare every file with its checksum"},
};

}  // namespace

const char* NameOfKind(BackupItemKind kind) {
  switch (kind) {
    case BackupItemKind::kStore:
      return "report";
    case BackupItemKind::kFile:
      return "file";
    case BackupItemKind::kHalfStore:
      return "half a report";
    case BackupItemKind::kLink:
      return "symbolic link";
    case BackupItemKind::kSkipped:
      return "neither file nor directory";
  }
  return "";
}

std::unique_ptr<report::PrivateDirectory> MakeExpandedDirectory() {
  const char* const named = std::getenv("TMPDIR");
  const HeldSignals held;
  auto made = report::MakeExpandedDirectory(named != nullptr && *named != '\0' ? named : "/var/tmp");
  if (made->Error() == 0) RemoveOnSignal(made->Path());
  return made;
}

constinit const Command kReportBackupsCommand = {.words = "report backups",
                                                 .help = "List the dated backups in a directory",
                                                 .run = ListBackups,
                                                 .parameters = {kBackupsParameters},
                                                 .examples = kBackupsExamples};

constinit const Command kReportVerifyBackupCommand = {.words = "report verify-backup",
                                                      .help = "Read a whole backup, and compare it with its checksums",
                                                      .run = VerifyBackup,
                                                      .parameters = {kVerifyBackupParameters},
                                                      .examples = kVerifyBackupExamples};

}  // namespace qx::ctl
