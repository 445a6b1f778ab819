// Restores a backup: first plans what it would replace, then replaces it file by file.
//
// Each file is written under a private name in the directory where it belongs, and synced. When all are written, they
// are renamed one after the other. Until the first rename nothing has changed; no reader sees a partly written file. If
// there is a symbolic link among the files to replace, or among directories, the restore is refused: a user who may
// write to a report directory could otherwise have any file replaced. For the same reason everything is read and
// written by names in open directories.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "reportfile/tools/directory/StoreBackup.h"

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
  bool is_damaged = false;  // the backup's store has findings
  bool is_link = false;     // a symbolic link is in the backup, in place of a file or in its path
  bool is_being_written =
      false;  // the report that it replaces changed between two checks, is locked or open for writing
  std::vector<int> writers = {};  // processes that have it open for writing, as far as this user can see
};

enum class RestoreState {
  kPlanned,     // nothing was changed
  kDone,        // every file of the backup is in the report directory, compared byte for byte
  kNotFound,    // the backup is not a directory
  kNoSuchItem,  // nothing was changed: the backup lacks a requested name, which is `file`
  kRefused,     // one of the two directories is in the other
  kLinked,      // nothing was changed: an item is or is below a symbolic link
  kBlocked,     // nothing was changed: an item is damaged or being written
  kFailed,      // the backup cannot be read or copied (nothing was changed), or not all of it was renamed into place
};

struct RestoreResult {
  RestoreState state = RestoreState::kPlanned;
  std::vector<RestoreItem> items;  // by name
  int error = 0;                   // kFailed: the error number, 0 if none is known ...
  std::string file;                // ... and the file
};

// Returns what a restore of `backup_directory` into `report_directory` would do: of everything, or of the items with
// these names. Takes a quarter of a second, between two checks of the reports that would be replaced. [any thread]
[[nodiscard]] RestoreResult PlanRestore(const std::string& backup_directory, const std::string& report_directory,
                                        const std::vector<std::string>& names = {});

struct RestoreOptions {
  bool force = false;                   // also if items are damaged or being written
  bool consume = false;                 // removes the backup after a restore that is done
  std::vector<std::string> names = {};  // of the items; empty: everything
};

// Plans, then restores. A file that is replaced keeps its owner and permissions; a new one gets those of the backup.
// Files of the report directory that the backup does not have stay. [any thread]
[[nodiscard]] RestoreResult RestoreReports(const std::string& backup_directory, const std::string& report_directory,
                                           const RestoreOptions& options);

}  // namespace qx::report
