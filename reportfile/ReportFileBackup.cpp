// The report directory's files, back from a backup directory.
//
// A restore is attempted once: whatever comes of the copy, the backup directory is deleted behind it. That makes it the
// one operation that can lose a report, so it refuses the two ways in which deleting the backup would delete what was
// just restored.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <new>
#include <string>
#include <system_error>

#include "debug/Debug.h"
#include "provider/ServerControlPaths.h"
#include "reportfile/Directory.h"
#include "reportfile/FileCopy.h"
#include "reportfile/NameExpansion.h"
#include "reportfile/ReportFileBase.h"

namespace {

using qx::report::FileId;

// False, traced, when nothing says where reports are kept.
bool FindReportDirectory(std::string& directory) {
  (void)CServerControlPaths::GetServerControlReportPath(directory);
  if (!directory.empty()) return true;
  QX_TRACE(1, "\nEM_THRESH           : ERROR! Could not found Server Control report data path");
  return false;
}

bool IsSameFile(const std::filesystem::path& path, const FileId& id) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && qx::report::IdOf(status) == id;
}

// Whether `directory`, or a directory on the way to it, is the one of this id.
//   /a/b/c  => looks at /a/b/c, /a/b, /a and /
bool LeadsThrough(std::filesystem::path directory, const FileId& id) {
  while (!IsSameFile(directory, id)) {
    if (!directory.has_relative_path()) return false;
    directory = directory.parent_path();
  }
  return true;
}

// The path that the absolute `path` comes to with every link resolved. Components that do not exist yet stand for the
// directories that a copy would make, so ".." leads back out of them.
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

// Of a stat of the backup: whether the deletion would not get at it either.
bool IsOutOfReach(int error) {
  return error == ENOENT || error == ENOTDIR || error == EACCES || error == ELOOP || error == ENAMETOOLONG;
}

// Why `backup` may not be restored and deleted, or 0. EINVAL: deleting it would delete the report directory, because
// the backup is it, or holds it or a link on the way to it. Directories are compared by what they are, not by name:
// links and other mounts of one directory count. Any other error: that could not be found out.
int RefusalOf(const std::string& backup, const std::string& report_directory) {
  struct stat status;
  if (stat(backup.c_str(), &status) != 0) return IsOutOfReach(errno) ? 0 : errno;
  const FileId id = qx::report::IdOf(status);
  std::error_code ignored;
  const std::filesystem::path path = std::filesystem::absolute(report_directory, ignored);
  return LeadsThrough(path, id) || LeadsThrough(Resolved(path), id) ? EINVAL : 0;
}

void TraceCopied(const std::string& backup, const std::string& report_directory) {
  QX_TRACE(2, "\nEM_THRESH           : Report files copied from backup path \"%s\" to path \"%s\"", backup.c_str(),
           report_directory.c_str());
}

void TraceNotCopied(int error, const std::string& backup, const std::string& report_directory) {
  QX_TRACE(1, "\nEM_THRESH           : ERROR 0x%X Could not copy report files from backup path \"%s\" to \"%s\"",
           static_cast<unsigned>(error), backup.c_str(), report_directory.c_str());
}

// The backup's own name is no pattern: a "[" in it must not make the copy find nothing and the deletion find it all.
bool CopyBack(const std::string& backup, const std::string& report_directory) {
  const std::string source = qx::report::EscapedForGlobbing(backup);
  if (CDirectory::CopyDir(source.c_str(), report_directory.c_str(), "*.*", true)) {
    TraceCopied(backup, report_directory);
    return true;
  }
  TraceNotCopied(errno, backup, report_directory);
  return false;
}

// The copies are on the disk before their originals go: a loss of power in between would otherwise leave neither.
void SyncFileSystemOf(const std::string& directory) {
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  (void)syncfs(fd);  // the backup goes whatever comes of it
  close(fd);
}

// What comes of the deletion shows in the trace only.
void DeleteBackup(const std::string& backup, const std::string& report_directory) {
  if (backup.empty()) return;
  if (access(backup.c_str(), F_OK) == 0) SyncFileSystemOf(report_directory);
  (void)CDirectory::RemoveDir(backup.c_str(), true);
}

bool Restore(const std::string& backup) {
  std::string report_directory;
  if (!FindReportDirectory(report_directory)) return false;
  if (const int error = RefusalOf(backup, report_directory); error != 0) {
    TraceNotCopied(error, backup, report_directory);
    errno = error;
    return false;
  }
  const bool is_copied = CopyBack(backup, report_directory);
  const int error = errno;
  DeleteBackup(backup, report_directory);  // Quirk: the backup goes even after a failed copy
  if (!is_copied) errno = error;           // the removal has errors of its own
  return is_copied;
}

}  // namespace

bool CReportFileBase::RestoreReportDataFiles(const std::string& backupPath) {
  try {
    return Restore(backupPath);
  } catch (const std::bad_alloc&) {
    return false;  // agents call this; no exception leaves the module
  }
}

// Quirk: takes every report directory for a drive, so there never is a backup.
bool CReportFileBase::BackupReportDataFiles(const std::string& backupPath) {
  if (backupPath.empty()) return false;
  std::string report_directory;
  if (!FindReportDirectory(report_directory)) return false;
  QX_TRACE(1, "\nEM_THRESH           : ERROR! Report folder is a drive - backup skipped");
  return false;
}
