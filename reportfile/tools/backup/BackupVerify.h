// Verifies a backup, and makes its files readable for a restore.
//
// A dated backup has a checksum for each file. Every file is read and compared with its checksum; then each report is
// checked as by `report verify`. For this check the files of a compressed backup are expanded in a private directory,
// one report at a time. A plain copy has no checksums, so only its reports are checked.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/backup/BackupFiles.h"
#include "reportfile/tools/directory/StoreBackup.h"

namespace qx::report {

enum class VerifiedState {
  kSound,
  kDamaged,   // a report with findings, or half a report; it was damaged when it was copied
  kChanged,   // a file differs from its checksum, or cannot be expanded
  kMissing,   // a file is in the list of checksums, but not in the backup
  kUnlisted,  // a file is in the backup, but not in the list
  kUnreadable,
};

struct VerifiedItem {
  std::string name;  // as in BackupItem
  BackupItemKind kind = BackupItemKind::kFile;
  VerifiedState state = VerifiedState::kSound;
  int error = 0;              // kUnreadable
  std::uint64_t records = 0;  // of a report
};

struct VerifiedBackup {
  int error = 0;     // of opening or listing the backup (see BackupFiles::Error), or of the private directory ...
  std::string file;  // ... and the file
  bool has_checksums = false;
  bool is_compressed = false;
  std::vector<VerifiedItem> items;    // by name
  std::vector<std::string> left_out;  // what the backup lacks
};

// Makes a private directory for expanded files, in the directory `temporary`. [any thread]
[[nodiscard]] std::unique_ptr<PrivateDirectory> MakeExpandedDirectory(const std::string& temporary);

// Calls MakeExpandedDirectory, and may do more: a program may have to know the directory, to remove it when a signal
// ends the program. It is called once, and only for a compressed backup.
using ExpandedDirectoryMaker = std::function<std::unique_ptr<PrivateDirectory>()>;

// Reads and checks every file. [any thread]
[[nodiscard]] VerifiedBackup VerifyBackup(const std::string& directory, const ExpandedDirectoryMaker& make_expanded);

// A backup whose requested files were compared with their checksums and are expanded.
//
// Owns: the private directory of expanded files, which is removed at the end of the scope.
class RestorableBackup {
 public:
  // With empty `names`, everything is prepared.
  RestorableBackup(const std::string& directory, const std::vector<std::string>& names,
                   const ExpandedDirectoryMaker& make_expanded);

  // 0; EBADMSG if a file of the backup does not have its checksum; otherwise the error number. Failed() is the file.
  [[nodiscard]] int Error() const { return error_; }
  [[nodiscard]] const std::string& Failed() const { return failed_; }
  [[nodiscard]] bool IsDated() const { return is_dated_; }
  // The directory to restore from.
  [[nodiscard]] const std::string& Path() const { return path_; }

 private:
  void Prepare(BackupFiles& files, const std::vector<std::string>& names, const ExpandedDirectoryMaker& make_expanded);
  void Fail(int error, std::string file);

  int error_ = 0;
  std::string failed_;
  bool is_dated_ = false;
  std::string path_;
  std::unique_ptr<PrivateDirectory> expanded_;
};

}  // namespace qx::report
