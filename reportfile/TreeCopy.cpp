#include "reportfile/TreeCopy.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "debug/Debug.h"
#include "reportfile/DirectoryListing.h"
#include "reportfile/NameExpansion.h"

namespace qx::report {

namespace {

constexpr std::size_t kPathCharsMax = 259;
constexpr mode_t kDirectoryMode = 0711;

bool IsDirectory(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

// What exists is accepted as it is, even a file: the first thing to be put into it fails. So is a directory for which
// the system has another answer than that it exists (automounters do). 0 or the error number.
int MakeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), kDirectoryMode) == 0 || errno == EEXIST) return 0;
  const int error = errno;
  return IsDirectory(path.c_str()) ? 0 : error;
}

// Creates the directory and every missing one above it. 0 or the error number.
int MakeDirectories(const std::string& path) {
  if (path.size() > kPathCharsMax) return ENAMETOOLONG;  // a path that is cut would lead elsewhere
  if (const int error = MakeDirectory(path); error != ENOENT) return error;
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    if (const int error = MakeDirectory(path.substr(0, slash)); error != 0) return error;
  }
  return MakeDirectory(path);
}

FileId IdAt(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? IdOf(status) : FileId();
}

//   /a/b  => b
std::string LastComponent(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// What is gone, and a link that leads nowhere, is left out without a word.
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
  const int error = RunLevels(source, destination);
  if (error == 0) return 0;
  for (std::size_t depth = levels_.size(); depth > 1; --depth) {
    QX_TRACE(1, "\nCDirectory::CopyDir() - ## ERROR: Subdirectory could not be copied. %s", ErrorText(error));
  }
  return error;
}

int TreeCopy::RunLevels(const std::string& source, const std::string& destination) {
  const std::string expression = WithEveryNameAsStar(source + "/" + pattern_);
  const Level top = {.destination = destination, .matches = {}, .source_id = IdAt(source)};
  if (const int error = Enter("", expression, top); error != 0) return error;
  destination_id_ = IdAt(destination);
  while (!levels_.empty()) {
    Level& level = levels_.back();
    if (level.next == level.matches.size()) {
      levels_.pop_back();
      continue;
    }
    const std::string match = std::move(level.matches[level.next++]);
    const std::string target = level.destination + "/" + LastComponent(match);
    if (const int error = CopyMatch(match, target); error != 0) return error;
  }
  return 0;
}

// Adds a level, unless there is nothing to copy. After an error the level is there: it is one of those that failed.
int TreeCopy::Enter(const std::string& known, const std::string& expression, Level level) {
  QX_TRACE(5, "\nCDirectory::CopyDir() - Looking for files matching %s", (known + expression).c_str());
  Expansion found = ExpandNames(known, expression);
  if (found.error != 0) {
    QX_TRACE(4, "\nCDirectory::CopyDir() - Could not find matching files to copy. %s", ErrorText(found.error));
    return 0;  // Quirk: a directory that cannot be read is as good as an empty one
  }
  level.matches = std::move(found.paths);
  levels_.push_back(std::move(level));
  const int error = MakeDirectories(levels_.back().destination);
  if (error != 0) {
    QX_TRACE(1, "\nCDirectory::CopyDir() - ## ERROR: Could not create destination dir. Error: %s", ErrorText(error));
  }
  return error;
}

int TreeCopy::CopyMatch(const std::string& match, const std::string& target) {
  struct stat status;
  if (stat(match.c_str(), &status) != 0) {
    TraceSkipped(match, errno);
    return 0;
  }
  if (S_ISDIR(status.st_mode)) return CopySubdirectory(match, status, target);

  QX_TRACE(4, "\nCDirectory::CopyDir() - Copy file %s --> %s", match.c_str(), target.c_str());
  const int error = CopyFile(match.c_str(), status, target.c_str(), overwrite_);
  if (error == 0 || error == EEXIST) return 0;
  TraceFailedFile(error);
  return error;
}

int TreeCopy::CopySubdirectory(const std::string& match, const struct stat& status, const std::string& target) {
  QX_TRACE(4, "\nCDirectory::CopyDir() - Copy DIR %s --> %s", match.c_str(), target.c_str());
  if (IsPartOfThisCopy(IdOf(status))) {
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
  return Enter(match, WithEveryNameAsStar("/" + pattern_),
               {.destination = target, .matches = {}, .source_id = IdOf(status)});
}

// The destination would fill itself for ever; a directory that a link inside it leads back to, nearly so.
bool TreeCopy::IsPartOfThisCopy(const FileId& directory) const {
  const auto is_entered = [&](const Level& level) { return level.source_id == directory; };
  return directory == destination_id_ || std::any_of(levels_.begin(), levels_.end(), is_entered);
}

}  // namespace qx::report
