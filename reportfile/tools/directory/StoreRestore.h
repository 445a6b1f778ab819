// Restores a backup: first finds the files that would be replaced, then replaces them file by file.
//
// Each file is written under a private name in its final directory, and synced. When all are written, they are renamed
// one after the other. Before the first rename no file of the report directory is changed, and no reader ever sees a
// partly written file. If one of the files to replace, or a directory above it, is a symbolic link, the restore is
// refused: a user who may write to a report directory could otherwise have any file replaced. For the same reason
// everything is read and written by names in open directories.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "reportfile/tools/directory/StoreBackup.h"

namespace qx::report {

enum class RestoreAction {
  kAdd,      // there is no such file in the report directory
  kReplace,  // the file in the report directory differs
  kSame,     // the files are equal byte for byte
};

struct RestoreItem {
  std::string name;  // as in BackupItem
  BackupItemKind kind = BackupItemKind::kFile;
  RestoreAction action = RestoreAction::kAdd;
  bool is_damaged = false;        // the store in the backup has findings
  bool is_link = false;           // a link in the backup, or a file to replace or a directory above it is a link
  bool is_being_written = false;  // the report to replace changed between two checks, is locked, or is open for writing
  std::vector<int> writers = {};  // processes that have it open for writing, as far as this user can see
};

enum class RestoreState {
  kPlanned,     // nothing was changed
  kDone,        // every file of the backup is in the report directory, compared byte for byte
  kNotFound,    // the backup is not a directory
  kNoSuchItem,  // nothing was changed: the backup lacks a requested name, which is `file`
  kRefused,     // one of the two directories is in the other
  kLinked,      // nothing was changed: an item has `is_link`
  kBlocked,     // nothing was changed: an item is damaged or being written
  kFailed,      // the backup cannot be read or copied (nothing was changed), or not all of it was renamed into place
};

struct RestoreResult {
  RestoreState state = RestoreState::kPlanned;
  std::vector<RestoreItem> items;  // by name
  int error = 0;                   // kFailed: the error number, 0 if none is known ...
  std::string file;                // ... and the file
};

// Returns what a restore of `backup_directory` into `report_directory` would do: for everything, or for the items with
// these names. Waits a quarter of a second between two checks of the reports that would be replaced. [any thread]
[[nodiscard]] RestoreResult PlanRestore(const std::string& backup_directory, const std::string& report_directory,
                                        const std::vector<std::string>& names = {});

struct RestoreOptions {
  bool force = false;                   // restore even if items are damaged or being written
  bool consume = false;                 // remove the backup after a restore whose state is kDone
  std::vector<std::string> names = {};  // of the items; empty: everything
};

// Plans, then restores. A file that is replaced keeps its owner and permissions; a new one gets those of the backup.
// Files of the report directory that the backup does not have stay. [any thread]
[[nodiscard]] RestoreResult RestoreReports(const std::string& backup_directory, const std::string& report_directory,
                                           const RestoreOptions& options);

}  // namespace qx::report
