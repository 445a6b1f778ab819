#include "reportfile/TreeCopy.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/File.h"
#include "debug/Debug.h"
#include "reportfile/DirectoryListing.h"
#include "reportfile/NameExpansion.h"

namespace qx::report {

namespace {

constexpr std::size_t kPathCharsMax = 259;
constexpr mode_t kDirectoryMode = 0711;

bool IsDirectory(const char* path) {
  struct stat status;
  return file::StatusOf(path, status) == 0 && S_ISDIR(status.st_mode);
}

// Anything that already has this name is accepted. If it is a file, the first copy into it fails. An existing directory
// is also accepted if the system reports another error than EEXIST, as automounters do. 0 or the error number.
int MakeDirectory(const std::string& path) {
  const int error = file::MakeDirectory(path.c_str(), kDirectoryMode);
  if (error == 0 || error == EEXIST) return 0;
  return IsDirectory(path.c_str()) ? 0 : error;
}

// Creates the directory and every missing one above it. 0 or the error number.
int MakeDirectories(const std::string& path) {
  if (path.size() > kPathCharsMax) return ENAMETOOLONG;  // a cut path would name another directory
  if (const int error = MakeDirectory(path); error != ENOENT) return error;
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    if (const int error = MakeDirectory(path.substr(0, slash)); error != 0) return error;
  }
  return MakeDirectory(path);
}

FileId IdAt(const std::string& path) {
  struct stat status;
  return file::StatusOf(path.c_str(), status) == 0 ? IdOf(status) : FileId();
}

//   /a/b  => b
std::string LastComponent(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// A removed entry and a dangling link are left out without a trace line.
void TraceSkipped(const std::string& match, int error) {
  if (error == ENOENT || error == ELOOP) return;
  QX_TRACE(1, "\nCDirectory::CopyDir() - ## ERROR: Status of %s could not be read, it is left out. %s", match.c_str(),
           ErrorText(error));
}

void TraceFailedFile(int error) {
  QX_TRACE(1, "\nCDirectory::CopyDir() - ## ERROR: Could not copy file. %s", ErrorText(error));
}

}  // namespace

TreeCopy::TreeCopy(const char* pattern, bool overwrite)
    : pattern_(pattern != nullptr ? pattern : ""), overwrite_(overwrite) {}

int TreeCopy::Run(const std::string& source, const std::string& destination) {
  const std::string expression = WithEveryNameAsStar(source + "/" + pattern_);
  return Start("", expression, {.destination = destination, .source_id = IdAt(source)});
}

int TreeCopy::RunListed(const std::string& source, const TreeListing& listing, const std::string& destination) {
  listing_ = &listing;
  return Start(source, WithEveryNameAsStar("/" + pattern_), {.destination = destination, .source_id = IdAt(source)});
}

int TreeCopy::Start(const std::string& known, const std::string& expression, Level top) {
  const std::string destination = top.destination;
  int error = Enter(known, expression, std::move(top));
  if (error == 0) error = RunLevels(destination);
  if (error == 0) return 0;
  for (std::size_t depth = levels_.size(); depth > 1; --depth) {
    QX_TRACE(1, "\nCDirectory::CopyDir() - ## ERROR: Subdirectory could not be copied. %s", ErrorText(error));
  }
  return error;
}

int TreeCopy::RunLevels(const std::string& destination) {
  destination_id_ = IdAt(destination);
  while (!levels_.empty()) {
    Level& level = levels_.back();
    if (level.next == level.matches.size()) {
      if (const int error = Leave(); error != 0) return error;
      continue;
    }
    const Match match = std::move(level.matches[level.next++]);
    const std::string target = level.destination + "/" + LastComponent(match.path);
    if (const int error = CopyMatch(match, target); error != 0) return error;
  }
  return 0;
}

// Adds a level, unless there is nothing to copy. After an error the level stays for the trace of the failure.
int TreeCopy::Enter(const std::string& known, const std::string& expression, Level level) {
  QX_TRACE(5, "\nCDirectory::CopyDir() - Looking for files matching %s", (known + ForTrace(expression)).c_str());
  Found found = FindMatches(known, expression);
  if (found.error != 0 && found.listing_error == 0) {
    QX_TRACE(4, "\nCDirectory::CopyDir() - Could not find matching files to copy. %s", ErrorText(found.error));
    return 0;  // Quirk: a directory that cannot be opened counts as empty
  }
  level.matches = std::move(found.matches);
  level.listing_error = found.listing_error;
  levels_.push_back(std::move(level));
  if (levels_.back().matches.empty()) return 0;  // the listing of the directory failed before the first name
  const int error = MakeDirectories(levels_.back().destination);
  if (error != 0) {
    QX_TRACE(1, "\nCDirectory::CopyDir() - ## ERROR: Could not create destination dir. Error: %s", ErrorText(error));
  }
  return error;
}

// Removes the last level after all its matches are handled. If the listing of its directory broke off, the copy has
// failed, and the level stays for the trace of the failure.
int TreeCopy::Leave() {
  const int error = levels_.back().listing_error;
  if (error == 0) {
    levels_.pop_back();
  } else if (levels_.size() == 1) {
    TraceFailedFile(error);
  }
  return error;
}

TreeCopy::Found TreeCopy::FindMatches(const std::string& known, std::string_view expression) const {
  Found found;
  if (listing_ == nullptr) {
    Expansion expansion = ExpandNames(known, expression);
    for (std::string& path : expansion.paths) found.matches.push_back({.path = std::move(path)});
    found.error = expansion.error;
    found.listing_error = expansion.listing_error;
    return found;
  }
  const TreeListing::Directory* const directory = listing_->Find(known);
  found.error = directory != nullptr ? directory->error : ENOENT;
  if (directory == nullptr) return found;
  for (const TreeListing::Entry& entry : directory->entries) {
    found.matches.push_back({.path = entry.path, .kind = entry.kind});
  }
  return found;
}

int TreeCopy::CopyMatch(const Match& match, const std::string& target) {
  FileKind kind = match.kind.value_or(FileKind());
  if (!match.kind.has_value()) {
    struct stat status;
    const int error = file::StatusOf(match.path.c_str(), status);
    if (error != 0) {
      TraceSkipped(match.path, error);
      return 0;
    }
    kind = KindOf(status);
  }
  if (kind.IsDirectory()) return CopySubdirectory(match.path, kind, target);

  QX_TRACE(4, "\nCDirectory::CopyDir() - Copy file %s --> %s", match.path.c_str(), target.c_str());
  const int error = CopyFile(match.path.c_str(), kind, target.c_str(), overwrite_);
  if (error == 0 || error == EEXIST) return 0;
  TraceFailedFile(error);
  return error;
}

int TreeCopy::CopySubdirectory(const std::string& match, const FileKind& kind, const std::string& target) {
  QX_TRACE(4, "\nCDirectory::CopyDir() - Copy DIR %s --> %s", match.c_str(), target.c_str());
  if (IsPartOfThisCopy(kind.id)) {
    QX_TRACE(5, "\nCDirectory::CopyDir() - Subdirectory is part of this copy already and will not be entered.");
    return 0;
  }
  if (!overwrite_ && IsDirectory(target.c_str())) {
    QX_TRACE(5, "\nCDirectory::CopyDir() - Subdirectory exists but will not be replaced.");
    return 0;
  }
  if (const int error = MakeDirectories(target); error != 0) {
    QX_TRACE(1, "\nCDirectory::CopyDir() - ## ERROR: Could not create destination subdirectory. Error: %s",
             ErrorText(error));
    return error;
  }
  return Enter(match, WithEveryNameAsStar("/" + pattern_), {.destination = target, .source_id = kind.id});
}

// True for the destination, and for a directory on the way down, to which a link in it can lead. A copy of either would
// not end, or would take very long.
bool TreeCopy::IsPartOfThisCopy(const FileId& directory) const {
  const auto is_entered = [&](const Level& level) { return level.source_id == directory; };
  return directory == destination_id_ || std::any_of(levels_.begin(), levels_.end(), is_entered);
}

}  // namespace qx::report
