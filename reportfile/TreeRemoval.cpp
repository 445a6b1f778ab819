#include "reportfile/TreeRemoval.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "debug/Debug.h"
#include "reportfile/DirectoryListing.h"

namespace qx::report {

namespace {

constexpr mode_t kRemovableMode = 0777;

enum class EntryKind { kLeft, kFile, kLink, kDirectory };

// A link that leads nowhere is left, like everything that is neither file nor directory.
EntryKind KindOf(const char* path) {
  struct stat status;
  if (lstat(path, &status) != 0) return EntryKind::kLeft;
  if (S_ISLNK(status.st_mode)) return stat(path, &status) == 0 ? EntryKind::kLink : EntryKind::kLeft;
  if (S_ISREG(status.st_mode)) return EntryKind::kFile;
  return S_ISDIR(status.st_mode) ? EntryKind::kDirectory : EntryKind::kLeft;
}

bool IsHidden(const std::string& name) { return name.starts_with('.'); }

bool ComesBefore(const std::string& a, const std::string& b) { return std::strcoll(a.c_str(), b.c_str()) < 0; }

// Not through a link: one that took the file's place meanwhile could lead anywhere.
void MakeRemovable(const char* path) {
  if (fchmodat(AT_FDCWD, path, kRemovableMode, AT_SYMLINK_NOFOLLOW) == 0) return;
  const int error = errno;
  QX_TRACE(1, "\nCDirectory          : ERROR cannot change mode of file \"%s\": %s", path, ErrorText(error));
}

// A file or a link, which has no mode of its own. 0 or the error number.
int RemoveFile(const char* path, EntryKind kind) {
  QX_TRACE(2, "\nCDirectory          : Found file: \"%s\"", path);
  if (kind == EntryKind::kFile) MakeRemovable(path);
  if (unlink(path) != 0) {
    const int error = errno;
    QX_TRACE(1, "\nCDirectory          : ERROR cannot remove file \"%s\": %s", path, ErrorText(error));
    return error;
  }
  QX_TRACE(3, "\nCDirectory          : Remove file \"%s\" OK!", path);
  return 0;
}

int RemoveParent(const char* path) {
  QX_TRACE(3, "\nCDirectory          : Remove directory parent \"%s\"", path);
  if (rmdir(path) != 0) {
    const int error = errno;
    QX_TRACE(1, "\nCDirectory          : ERROR cannot remove parent directory \"%s\": %s\n", path, ErrorText(error));
    return error;
  }
  QX_TRACE(3, "\nCDirectory          : Remove directory parent \"%s\" OK!", path);
  return 0;
}

}  // namespace

int TreeRemoval::Run(const std::string& directory, bool remove_parent) {
  const int error = RunLevels(directory, remove_parent);
  if (error == 0) return 0;
  for (std::size_t depth = levels_.size(); depth > 1; --depth) {
    QX_TRACE(1, "\nCDirectory          : ERROR cannot remove directory \"%s\": %s", levels_[depth - 1].path.c_str(),
             ErrorText(error));
  }
  return error;
}

int TreeRemoval::RunLevels(const std::string& directory, bool remove_parent) {
  if (const int error = Enter(directory); error != 0) return error;
  while (!levels_.empty()) {
    Level& level = levels_.back();
    const bool is_emptied = level.next == level.names.size();
    const int error =
        is_emptied ? LeaveEmptied(remove_parent) : RemoveEntry(level.path + "/" + level.names[level.next++]);
    if (error != 0) return error;
  }
  return 0;
}

// Adds a level; after an error, too: it is one of those that failed.
int TreeRemoval::Enter(const std::string& path) {
  const FinalLink link = levels_.empty() ? FinalLink::kFollowed : FinalLink::kRefused;
  Level& level = levels_.emplace_back(Level{.path = path, .names = {}});
  QX_TRACE(2, "\nCDirectory          : Remove directory \"%s\"", path.c_str());
  const int error = ListDirectory(path.c_str(), link, level.names);
  if (error != 0) {
    // Quirk: the line shows no path, for that of an entry has its place here and there is none yet.
    QX_TRACE(3, "\nCDirectory          : scandir for directory \"%s\" failed; ## ERROR: %s", "", ErrorText(error));
    return error;
  }
  std::erase_if(level.names, IsHidden);
  std::sort(level.names.begin(), level.names.end(), ComesBefore);
  return 0;
}

int TreeRemoval::RemoveEntry(const std::string& path) {
  const EntryKind kind = KindOf(path.c_str());
  if (kind == EntryKind::kLeft) return 0;
  if (kind != EntryKind::kDirectory) return RemoveFile(path.c_str(), kind);
  QX_TRACE(2, "\nCDirectory          : Found dir: \"%s\"", path.c_str());
  return Enter(path);
}

// Takes the last level off once its directory is removed, which the top one need not be.
int TreeRemoval::LeaveEmptied(bool remove_parent) {
  const bool is_top = levels_.size() == 1;
  const std::string& path = levels_.back().path;
  if (!is_top || remove_parent) {
    if (const int error = RemoveParent(path.c_str()); error != 0) return error;
  }
  if (!is_top) QX_TRACE(3, "\nCDirectory          : Remove directory \"%s\" OK!", path.c_str());
  levels_.pop_back();
  return 0;
}

}  // namespace qx::report
