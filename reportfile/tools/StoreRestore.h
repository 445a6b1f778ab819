// Puts a backup back: says first what it would replace, then has the store's own restore operation do it.
//
// CReportFileBase::RestoreReportDataFiles deletes the directory that it restores from, whatever came of the copy. It
// therefore gets a private copy of the backup, and the operator's own backup stays unless asked otherwise.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "reportfile/tools/StoreBackup.h"

namespace qx::report {

enum class RestoreAction {
  kAdd,      // there is no such file in the report directory
  kReplace,  // there is one, and it differs
  kSame,     // the files are equal byte for byte
};

struct RestoreItem {
  std::string name;  // as BackupItem's
  BackupItemKind kind = BackupItemKind::kFile;
  RestoreAction action = RestoreAction::kAdd;
  bool is_damaged = false;        // the backup's store has findings
  bool is_being_written = false;  // the report that it replaces changed between two looks, or is open for writing
  std::vector<int> writers = {};  // processes that have it open for writing, as far as this user can see
};

enum class RestoreState {
  kPlanned,   // nothing was changed
  kDone,      // every file of the backup stands in the report directory, compared byte for byte
  kNotFound,  // the backup is no directory
  kRefused,   // one of the two directories lies in the other
  kBlocked,   // nothing was changed: an item is damaged or being written
  kFailed,    // the backup cannot be read or copied (nothing was changed), or not all of it reached its place
};

struct RestoreResult {
  RestoreState state = RestoreState::kPlanned;
  std::vector<RestoreItem> items;  // by name
  int error = 0;                   // kFailed: the error number, 0 if none is known ...
  std::string file;                // ... and the file
};

// Says what restoring `backup_directory` into `report_directory` would do. Takes a quarter of a second, between two
// looks at the reports that would be replaced. [any thread]
[[nodiscard]] RestoreResult PlanRestore(const std::string& backup_directory, const std::string& report_directory);

struct RestoreOptions {
  bool force = false;    // also if items are damaged or being written
  bool consume = false;  // removes the backup after a restore that is done
};

// Plans, then restores with CReportFileBase::RestoreReportDataFiles, which finds the report directory itself:
// `report_directory` has to be that one. Files of the report directory that the backup does not have stay. [any thread]
[[nodiscard]] RestoreResult RestoreReports(const std::string& backup_directory, const std::string& report_directory,
                                           const RestoreOptions& options);

}  // namespace qx::report
