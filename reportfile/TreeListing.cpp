#include "reportfile/TreeListing.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <utility>

#include "base/File.h"
#include "reportfile/DirectoryListing.h"

namespace qx::report {

namespace {

// True if the entry was removed, or is a link that leads nowhere or to itself.
bool IsAbsent(int error) { return error == ENOENT || error == ELOOP; }

// A directory whose subdirectories are still to be listed. The pointer stays valid: a map does not move its values.
struct Level {
  FileId id;
  const TreeListing::Directory* directory;
  std::size_t next = 0;
};

bool IsEntered(const std::vector<Level>& levels, const FileId& id) {
  return std::any_of(levels.begin(), levels.end(), [&](const Level& level) { return level.id == id; });
}

// 0 or the error number.
int AddEntries(const std::string& directory, const std::vector<std::string>& names,
               std::vector<TreeListing::Entry>& entries) {
  for (const std::string& name : names) {
    std::string path = directory;
    path.append("/").append(name);
    struct stat status = {};
    const int error = file::StatusOf(path.c_str(), status);
    if (IsAbsent(error)) continue;
    if (error != 0) return error;
    entries.push_back({.path = std::move(path), .kind = KindOf(status)});
  }
  return 0;
}

// Lists one directory. If `is_top`, a path that is not a directory counts as empty. Returns 0 or the error number.
int ReadDirectory(const std::string& path, bool is_top, TreeListing::Directory& directory) {
  const Listing listing = ListDirectory(path);
  const bool is_absent = IsAbsent(listing.error) || (is_top && listing.error == ENOTDIR);
  if (!listing.is_open && is_absent) {
    directory.error = listing.error;
    return 0;
  }
  if (listing.error != 0) return listing.error;
  const int error = AddEntries(path, listing.names, directory.entries);
  if (directory.entries.empty()) directory.error = ENOENT;
  return error;
}

}  // namespace

int TreeListing::Read(const std::string& top, const FileId& left_out) {
  struct stat status = {};
  const int status_error = file::StatusOf(top.c_str(), status);
  if (status_error != 0 && !IsAbsent(status_error) && status_error != ENOTDIR) return status_error;
  Directory& first = directories_[top];
  if (const int error = ReadDirectory(top, true, first); error != 0) return error;
  std::vector<Level> levels = {{.id = IdOf(status), .directory = &first}};
  while (!levels.empty()) {
    Level& level = levels.back();
    if (level.next == level.directory->entries.size()) {
      levels.pop_back();
      continue;
    }
    const Entry& entry = level.directory->entries[level.next++];
    const bool is_entered = entry.kind.id == left_out || IsEntered(levels, entry.kind.id);
    if (!entry.kind.IsDirectory() || is_entered) continue;
    Directory& directory = directories_[entry.path];
    if (const int error = ReadDirectory(entry.path, false, directory); error != 0) return error;
    levels.push_back({.id = entry.kind.id, .directory = &directory});
  }
  return 0;
}

const TreeListing::Directory* TreeListing::Find(const std::string& directory) const {
  const auto found = directories_.find(directory);
  return found != directories_.end() ? &found->second : nullptr;
}

}  // namespace qx::report
