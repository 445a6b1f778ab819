// Restores the report directory's files from a backup directory.
//
// A restore is attempted once: whatever the result of the copy, the backup directory is deleted after it. It is
// therefore the one operation that can lose a report. So a restore is refused, before anything is copied, if deleting
// the backup would delete the restored files, or if the backup cannot be listed completely.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <new>
#include <string>
#include <system_error>

#include "base/File.h"
#include "debug/Debug.h"
#include "provider/ServerControlPaths.h"
#include "reportfile/Directory.h"
#include "reportfile/FileCopy.h"
#include "reportfile/Operation.h"
#include "reportfile/ReportFileBase.h"
#include "reportfile/TreeCopy.h"
#include "reportfile/TreeListing.h"

namespace {

using qx::report::FileId;

// False, with a line in the trace, if no report directory is known.
bool FindReportDirectory(std::string& directory) {
  (void)CServerControlPaths::GetServerControlReportPath(directory);
  if (!directory.empty()) return true;
  QX_TRACE(1, "\nEM_THRESH           : ERROR! Could not found Server Control report data path");
  return false;
}

bool IsSameFile(const std::filesystem::path& path, const FileId& id) {
  struct stat status;
  return qx::file::StatusOf(path.c_str(), status) == 0 && qx::report::IdOf(status) == id;
}

// Whether `directory`, or a directory on the way to it, has this id.
//   /a/b/c  => checks /a/b/c, /a/b, /a and /
bool LeadsThrough(std::filesystem::path directory, const FileId& id) {
  while (!IsSameFile(directory, id)) {
    if (!directory.has_relative_path()) return false;
    directory = directory.parent_path();
  }
  return true;
}

// The absolute `path` with every link resolved. A component that does not exist counts as a directory, which a copy
// would make; a ".." after it leads back to the directory above.
std::filesystem::path Resolved(const std::filesystem::path& path) {
  std::filesystem::path resolved = "/";
  for (const std::filesystem::path& name : path.relative_path()) {
    if (name.empty() || name == ".") continue;
    if (name == "..") {
      resolved = resolved.parent_path();
      continue;
    }
    const std::filesystem::path next = resolved / name;
    std::error_code error;
    const std::filesystem::path real = std::filesystem::canonical(next, error);
    resolved = error ? next : real;
  }
  return resolved;
}

// A backup that does not exist is an empty one: there is nothing to copy, and nothing to delete.
bool MeansThereIsNoBackup(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP; }

// Why `backup` may not be restored and deleted, or 0. EINVAL: deleting it would delete the report directory, because
// the backup is that directory, or contains it or a link on the way to it. Directories are compared by device and
// inode, so links and other mounts are recognised. Any other error is that of `stat` of the backup.
int RefusalOf(const std::string& backup, const std::string& report_directory) {
  struct stat status;
  const int stat_error = qx::file::StatusOf(backup.c_str(), status);
  if (stat_error != 0) return MeansThereIsNoBackup(stat_error) ? 0 : stat_error;
  const FileId id = qx::report::IdOf(status);
  std::error_code ignored;
  const std::filesystem::path path = std::filesystem::absolute(report_directory, ignored);
  return LeadsThrough(path, id) || LeadsThrough(Resolved(path), id) ? EINVAL : 0;
}

FileId IdAt(const std::string& path) {
  struct stat status;
  return qx::file::StatusOf(path.c_str(), status) == 0 ? qx::report::IdOf(status) : FileId();
}

// Lists the backup before anything is copied: a copy that found only some of the names would be followed by the
// deletion of all of them. Returns 0 or the error number.
int ListBackup(const std::string& backup, const std::string& report_directory, qx::report::TreeListing& listing) {
  if (!backup.starts_with('/')) return 0;  // CopyBack refuses such a path; the deletion does not
  return qx::report::ErrorOfOperation([&] { return listing.Read(backup, IdAt(report_directory)); });
}

void TraceCopied(const std::string& backup, const std::string& report_directory) {
  QX_TRACE(2, "\nEM_THRESH           : Report files copied from backup path \"%s\" to path \"%s\"", backup.c_str(),
           report_directory.c_str());
}

void TraceNotCopied(int error, const std::string& backup, const std::string& report_directory) {
  QX_TRACE(1, "\nEM_THRESH           : ERROR 0x%X Could not copy report files from backup path \"%s\" to \"%s\"",
           static_cast<unsigned>(error), backup.c_str(), report_directory.c_str());
}

// Copies what was listed. A path that is not absolute is passed to CDirectory, which refuses it. Returns 0 or the error
// number.
int CopyBack(const std::string& backup, const qx::report::TreeListing& listing, const std::string& report_directory) {
  constexpr const char* kEveryName = "*.*";
  if (!backup.starts_with('/') || !report_directory.starts_with('/')) {
    return CDirectory::CopyDir(backup.c_str(), report_directory.c_str(), kEveryName, true) ? 0 : errno;
  }
  return qx::report::ErrorOfOperation(
      [&] { return qx::report::TreeCopy(kEveryName, true).RunListed(backup, listing, report_directory); });
}

// Syncs the copies before the originals are deleted. Otherwise a power failure after the deletion could lose both. If
// the directory cannot be opened, every file system is synced, which needs no descriptor.
void SyncFileSystemOf(const std::string& directory) {
  const qx::file::Descriptor open = qx::file::OpenDirectory(directory.c_str());
  if (open.IsOpen()) {
    (void)qx::file::SyncFileSystem(open.Number());  // the backup is deleted whatever the result
  } else {
    qx::file::SyncAllFileSystems();
  }
}

// Deletes the backup. The result is only in the trace.
void DeleteBackup(const std::string& backup, const std::string& report_directory) {
  if (backup.empty()) return;
  if (access(backup.c_str(), F_OK) == 0) SyncFileSystemOf(report_directory);
  (void)CDirectory::RemoveDir(backup.c_str(), true);
}

bool Restore(const std::string& backup) {
  std::string report_directory;
  if (!FindReportDirectory(report_directory)) return false;
  qx::report::TreeListing listing;
  int error = RefusalOf(backup, report_directory);
  if (error == 0) error = ListBackup(backup, report_directory, listing);
  if (error != 0) {
    TraceNotCopied(error, backup, report_directory);
    errno = error;
    return false;
  }
  error = CopyBack(backup, listing, report_directory);
  if (error == 0) TraceCopied(backup, report_directory);
  if (error != 0) TraceNotCopied(error, backup, report_directory);
  DeleteBackup(backup, report_directory);  // Quirk: the backup is deleted even after a failed copy
  if (error != 0) errno = error;           // the removal has errors of its own
  return error == 0;
}

}  // namespace

bool CReportFileBase::RestoreReportDataFiles(const std::string& backupPath) {
  try {
    return Restore(backupPath);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;  // agents call this; no exception leaves the module
  }
}

// Quirk: every report directory counts as a drive, so no backup is ever made.
bool CReportFileBase::BackupReportDataFiles(const std::string& backupPath) {
  if (backupPath.empty()) return false;
  std::string report_directory;
  if (!FindReportDirectory(report_directory)) return false;
  QX_TRACE(1, "\nEM_THRESH           : ERROR! Report folder is a drive - backup skipped");
  return false;
}
