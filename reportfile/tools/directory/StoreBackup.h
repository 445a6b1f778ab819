// Copies a report directory while its writers continue. Each store is copied in a consistent state; every other file is
// copied as it is.
//
// The backup is built in a directory next to the target under a name that ends in six random characters, synced, and
// renamed at the end. A crash or a full disk therefore never leaves a partial target. A store that could not be copied
// consistently is left out, and is named in the result. Symbolic links are left out, and are named in the result: a
// user who may write to a report directory could otherwise have any file copied. For the same reason everything is read
// and written by names in open directories.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qx::report {

enum class BackupItemKind {
  kStore,      // both files of a report
  kFile,       // any other regular file
  kHalfStore,  // an index or data file without the other one; copied as it is
  kLink,       // a symbolic link; not copied
  kSkipped,    // neither a regular file nor a directory; not copied
};

enum class BackupItemState {
  kCopied,
  kDamaged,     // copied, and the copy has findings
  kNeverStill,  // not copied: its writer overwrote it faster than it could be read, or a file changed in every try
  kGone,        // not copied: removed meanwhile
  kUnreadable,  // not copied: its bytes cannot be read, or `stat` fails
};

struct BackupItem {
  std::string name;  // below the report directory; of a store without the endings
  BackupItemKind kind = BackupItemKind::kFile;
  BackupItemState state = BackupItemState::kCopied;
  bool was_written = false;  // records were appended during the copy; the copy does not have them
  int error = 0;             // kUnreadable
  std::uint64_t records = 0;
};

enum class BackupState {
  kDone,      // the target has every item whose state is kCopied or kDamaged
  kNotFound,  // no report directory
  kRefused,   // the target exists and is not an empty directory, or is in the report directory
  kFailed,    // the report directory cannot be listed, or the target cannot be written; there is no target
};

struct BackupResult {
  BackupState state = BackupState::kDone;
  std::vector<BackupItem> items;  // by name
  int error = 0;                  // kFailed: the error number ...
  std::string file;               // ... and the file
};

// The form of a backup, and what it has in addition to the copies. Every function returns 0, or the error number that
// makes the backup fail.
struct BackupForm {
  // The copies are made in this directory of the target; empty: in the target itself.
  std::string folder = {};
  // Called for each copied file after its check, with its name in the open directory. The function may replace the file
  // by another one whose name begins with this name.
  std::function<int(const std::string& name, int directory)> after_copy = {};
  // Called when everything is copied, with the open target. The function can write further files there.
  std::function<int(const BackupResult& result, int target)> finish = {};
};

// [any thread]
[[nodiscard]] BackupResult BackupReports(const std::string& report_directory, const std::string& target,
                                         const BackupForm& form = {});

// The files of an item, by name below the report directory; none if it has no bytes. [any thread]
[[nodiscard]] std::vector<std::string> FilesOf(BackupItemKind kind, const std::string& name);

// The contents of a report directory, or of a backup of one: reports, other files and directories, by their names below
// it. An item that was removed during the listing is kGone; an item whose `stat` fails is kUnreadable.
struct ReportTree {
  int error = 0;  // of the listing; what was listed before the error stays
  std::vector<std::string> directories;
  std::vector<BackupItem> items;
};

// What happens at a subdirectory that cannot be opened or listed.
enum class Unlistable {
  kEndsTheList,  // its error number becomes that of the tree
  kIsAnItem,     // it is an item that is kSkipped and kUnreadable, and the list continues after it
};

// Adds the items of these regular files. The two files of a report become one item. [any thread]
void AddFiles(const std::vector<std::string>& files, std::vector<BackupItem>* items);

// Lists the open `directory` and everything below it, hidden names included, without following links; each directory
// before what it contains. [any thread]
[[nodiscard]] ReportTree ListReports(int directory, Unlistable unlistable = Unlistable::kEndsTheList);

// True if `path`, as far as it exists, is `directory` or below it. Links are resolved. [any thread]
[[nodiscard]] bool IsWithin(const std::string& path, const std::string& directory);

}  // namespace qx::report
