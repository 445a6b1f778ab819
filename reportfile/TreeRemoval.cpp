#include "reportfile/TreeRemoval.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "debug/Debug.h"
#include "reportfile/DirectoryListing.h"

namespace qx::report {

namespace {

constexpr mode_t kRemovableMode = 0777;

enum class EntryKind { kLeft, kFile, kLink, kDirectory };

// A link that leads nowhere is left, like everything that is neither file nor directory.
EntryKind KindOf(const char* name, int directory) {
  struct stat status;
  if (file::StatusOf(name, status, AT_SYMLINK_NOFOLLOW, directory) != 0) return EntryKind::kLeft;
  if (S_ISLNK(status.st_mode)) {
    return file::StatusOf(name, status, 0, directory) == 0 ? EntryKind::kLink : EntryKind::kLeft;
  }
  if (S_ISREG(status.st_mode)) return EntryKind::kFile;
  return S_ISDIR(status.st_mode) ? EntryKind::kDirectory : EntryKind::kLeft;
}

bool IsHidden(const std::string& name) { return name.starts_with('.'); }

bool ComesBefore(const std::string& a, const std::string& b) { return std::strcoll(a.c_str(), b.c_str()) < 0; }

// An entry whose path is too long for any call is left, although it could be removed through a descriptor.
bool HasNameablePath(const std::string& path) { return path.size() < PATH_MAX; }

// Sets the mode through a descriptor. This is possible only if the file is readable.
int SetModeOfReadable(const char* name, int directory) {
  const file::Descriptor file = file::Open(name, O_RDONLY | O_NOFOLLOW, 0, directory);
  if (!file.IsOpen()) return 0;  // not a failure: a removal does not need the mode
  return fchmod(file.Number(), kRemovableMode) == 0 ? 0 : errno;
}

// Does not follow a link that has replaced the file meanwhile: it could lead anywhere. The C library needs /proc for
// this.
int SetMode(const char* name, int directory) {
  if (fchmodat(directory, name, kRemovableMode, AT_SYMLINK_NOFOLLOW) == 0) return 0;
  const int error = errno;
  return error == EOPNOTSUPP ? SetModeOfReadable(name, directory) : error;
}

void TraceFailedRemoval(const char* path, int error) {
  QX_TRACE(1, "\nCDirectory          : ERROR cannot remove file \"%s\": %s", path, ErrorText(error));
}

void TraceFailedMode(const char* path, int error) {
  QX_TRACE(1, "\nCDirectory          : ERROR cannot change mode of file \"%s\": %s", path, ErrorText(error));
}

// Removes a file or a link. A link has no mode to change. Returns 0 or the error number.
int RemoveFile(const char* name, int directory, const char* path, EntryKind kind) {
  QX_TRACE(2, "\nCDirectory          : Found file: \"%s\"", path);
  const int mode_error = kind == EntryKind::kFile ? SetMode(name, directory) : 0;
  if (mode_error != 0) TraceFailedMode(path, mode_error);
  const int error = file::Remove(name, 0, directory);
  if (error != 0) {
    TraceFailedRemoval(path, error);
    return error;
  }
  QX_TRACE(3, "\nCDirectory          : Remove file \"%s\" OK!", path);
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
  const std::string name = file::NameOf(directory);
  if (const int error = Enter({.path = directory, .name = name.empty() ? "/" : name}); error != 0) return error;
  while (!levels_.empty()) {
    Level& level = levels_.back();
    const bool is_emptied = level.next == level.names.size();
    int error = 0;
    if (is_emptied) {
      error = LeaveLevel(remove_parent);
    } else {
      const std::string entry = std::move(level.names[level.next++]);
      error = RemoveEntry(entry, level.path + "/" + entry);
    }
    if (error != 0) return error;
  }
  return 0;
}

// Adds a level and lists its directory. After an error the level stays for the trace of the failure.
int TreeRemoval::Enter(Level level) {
  levels_.push_back(std::move(level));
  Level& entered = levels_.back();
  QX_TRACE(2, "\nCDirectory          : Remove directory \"%s\"", entered.path.c_str());
  int error = Open(entered);
  if (error == 0) error = file::ListNames(cursor_.Number(), entered.names);
  if (error != 0) {
    // Quirk: the line shows an empty path, because it shows the path of an entry, and there is no entry yet.
    QX_TRACE(3, "\nCDirectory          : scandir for directory \"%s\" failed; ## ERROR: %s", "", ErrorText(error));
    return error;
  }
  std::erase_if(entered.names, IsHidden);
  std::sort(entered.names.begin(), entered.names.end(), ComesBefore);
  return 0;
}

// The top may be a link; then the directory that it leads to is emptied. The directory that contains the top's name is
// opened here once, and the name is later removed from it.
int TreeRemoval::Open(const Level& level) {
  if (levels_.size() > 1) return cursor_.Enter(level.name);
  if (!HasNameablePath(level.path)) return ENAMETOOLONG;
  above_top_ = file::Open(file::DirectoryOf(level.path).c_str(), O_PATH | O_DIRECTORY);
  if (!above_top_.IsOpen()) return errno;
  file::Descriptor top = file::OpenDirectory(level.name.c_str(), 0, above_top_.Number());
  return top.IsOpen() ? cursor_.Begin(std::move(top)) : errno;
}

int TreeRemoval::RemoveEntry(const std::string& name, const std::string& path) {
  const EntryKind kind = HasNameablePath(path) ? KindOf(name.c_str(), cursor_.Number()) : EntryKind::kLeft;
  if (kind == EntryKind::kLeft) return 0;
  if (kind != EntryKind::kDirectory) return RemoveFile(name.c_str(), cursor_.Number(), path.c_str(), kind);
  QX_TRACE(2, "\nCDirectory          : Found dir: \"%s\"", path.c_str());
  return Enter({.path = path, .name = name});
}

// Removes the directory of the last level, then the level. The top directory is removed only with `remove_parent`.
int TreeRemoval::LeaveLevel(bool remove_parent) {
  const bool is_top = levels_.size() == 1;
  const Level& level = levels_.back();
  if (!is_top || remove_parent) {
    if (const int error = RemoveParent(level, is_top); error != 0) return error;
  }
  if (!is_top) QX_TRACE(3, "\nCDirectory          : Remove directory \"%s\" OK!", level.path.c_str());
  levels_.pop_back();
  return 0;
}

int TreeRemoval::RemoveParent(const Level& level, bool is_top) {
  const char* const path = level.path.c_str();
  QX_TRACE(3, "\nCDirectory          : Remove directory parent \"%s\"", path);
  int error = is_top ? 0 : cursor_.Leave();
  const int above = is_top ? above_top_.Number() : cursor_.Number();
  if (error == 0) error = file::Remove(level.name.c_str(), AT_REMOVEDIR, above);
  if (error != 0) {
    QX_TRACE(1, "\nCDirectory          : ERROR cannot remove parent directory \"%s\": %s\n", path, ErrorText(error));
    return error;
  }
  QX_TRACE(3, "\nCDirectory          : Remove directory parent \"%s\" OK!", path);
  return 0;
}

}  // namespace qx::report
