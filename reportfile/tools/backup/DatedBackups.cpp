#include "reportfile/tools/backup/DatedBackups.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <optional>
#include <utility>

#include "base/File.h"
#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/backup/BackupFiles.h"
#include "reportfile/tools/backup/Checksums.h"
#include "reportfile/tools/backup/CompressedFile.h"

namespace qx::report {

namespace {

constexpr std::string_view kNamePattern = "dddd-dd-ddTdd-dd-ddZ";
constexpr int kNamesOfASecondMax = 9;
constexpr std::string_view kPartialMark = ".partial-";
constexpr std::string_view kRemovedMark = ".removed-";

std::string NameOfTime(std::time_t now) {
  std::tm parts = {};
  (void)gmtime_r(&now, &parts);
  char name[64];
  return {name, std::strftime(name, sizeof name, "%Y-%m-%dT%H-%M-%SZ", &parts)};
}

// True for the name of what a killed process left: the name of a backup, followed by one of the two marks and random
// characters.
bool IsUnfinishedName(std::string_view name) {
  for (const std::string_view mark : {kPartialMark, kRemovedMark}) {
    const std::size_t at = name.find(mark);
    if (at != std::string_view::npos && IsBackupName(name.substr(0, at))) return true;
  }
  return false;
}

// The first free name of this second; empty if all are in use.
std::string FreeName(std::time_t now, int directory) {
  const std::string name = NameOfTime(now);
  for (int count = 1; count <= kNamesOfASecondMax; ++count) {
    std::string tried = count == 1 ? name : name + "-" + std::to_string(count);
    struct stat status = {};
    if (file::StatusOf(tried.c_str(), status, AT_SYMLINK_NOFOLLOW, directory) == ENOENT) return tried;
  }
  return "";
}

const char* ReasonOf(const BackupItem& item) {
  if (item.kind == BackupItemKind::kLink) return "symbolic link";
  if (item.kind == BackupItemKind::kSkipped) return "neither file nor directory";
  if (item.state == BackupItemState::kNeverStill) return "never still";
  return item.state == BackupItemState::kUnreadable ? "unreadable" : nullptr;
}

// "never still: load\n", with line feeds of names as blanks
std::string LeftOutLines(const BackupResult& result) {
  std::string lines;
  for (const BackupItem& item : result.items) {
    const char* const reason = ReasonOf(item);
    if (reason == nullptr) continue;
    std::string name = item.name;
    std::replace(name.begin(), name.end(), '\n', ' ');
    lines += std::string(reason) + ": " + name + "\n";
  }
  return lines;
}

int WriteText(const char* name, int directory, std::string_view text) {
  struct stat like = {};
  if (const int error = file::StatusOf(directory, like); error != 0) return error;
  like.st_mode = S_IRUSR | S_IWUSR;
  like.st_atim.tv_nsec = UTIME_NOW;
  like.st_mtim = like.st_atim;
  NewFile file(name, directory);
  file.WriteAt(0, text);
  return file.Finish(like);
}

// Writes the list of checksums of everything in the folder. The checksums are computed from the written files.
int WriteChecksums(const char* folder, int target) {
  DirectoriesBelow tree(file::OpenDirectory(folder, O_NOFOLLOW, target));
  if (!tree.IsOpen()) return errno;
  const ReportTree listed = ListReports(tree.Top());
  if (listed.error != 0) return listed.error;
  std::vector<Checksum> checksums;
  for (const BackupItem& item : listed.items) {
    for (const std::string& path : FilesOf(item.kind, item.name)) {
      Checksum checksum = {.path = PathIn(folder, path), .hex = ""};
      const int directory = tree.Containing(path);
      const int error = directory < 0 ? errno : ChecksumOf(file::NameOf(path), directory, &checksum.hex);
      if (error != 0) return error;
      checksums.push_back(std::move(checksum));
    }
  }
  return WriteText(kChecksumFile, target, ChecksumLines(checksums));
}

int FinishBackup(const char* folder, const BackupResult& result, int target) {
  const std::string left_out = LeftOutLines(result);
  if (!left_out.empty()) {
    if (const int error = WriteText(kLeftOutFile, target, left_out); error != 0) return error;
  }
  return WriteChecksums(folder, target);
}

// True if no item is missing that another backup could copy. Symbolic links and pipes are never copied.
bool HasEveryItem(const BackupResult& result) {
  return std::none_of(result.items.begin(), result.items.end(), [](const BackupItem& item) {
    return item.state == BackupItemState::kNeverStill || item.state == BackupItemState::kUnreadable;
  });
}

// True for a directory that the user of this process owns; false for a link.
bool IsOwnDirectory(const std::string& name, int directory) {
  struct stat status = {};
  return file::StatusOf(name.c_str(), status, AT_SYMLINK_NOFOLLOW, directory) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == geteuid();
}

// The names, sorted, of the requested directories that the user of this process owns.
std::vector<std::string> OwnNames(int directory, bool (*is_requested)(std::string_view)) {
  std::vector<std::string> names;
  const file::Descriptor position = file::OpenDirectory(".", 0, directory);
  if (!position.IsOpen() || file::ListNames(position.Number(), names) != 0) return {};
  std::erase_if(names,
                [&](const std::string& name) { return !is_requested(name) || !IsOwnDirectory(name, directory); });
  std::sort(names.begin(), names.end());
  return names;
}

// Removes the directory of this name with everything in it. 0 or the error number.
int RemoveTree(const std::string& name, int directory) {
  const file::Descriptor tree = file::OpenDirectory(name.c_str(), O_NOFOLLOW, directory);
  if (!tree.IsOpen()) return errno;
  if (const int error = RemoveContents(tree.Number()); error != 0) return error;
  return file::Remove(name.c_str(), AT_REMOVEDIR, directory);
}

// Renames the backup before it is removed, so that a crash never leaves a part of it under its name.
int RemoveBackup(const std::string& name, int directory) {
  const std::string removed = WithRandomEnd(name + std::string(kRemovedMark));
  int error = file::RenameWithoutReplacing(name.c_str(), removed.c_str(), directory, directory);
  if (error == 0) error = file::Sync(directory);
  return error == 0 ? RemoveTree(removed, directory) : error;
}

// Keeps `keep` backups: the new one, and the newest of the others. Removes the rest.
void RemoveOldBackups(std::size_t keep, int directory, DatedBackup* made) {
  std::vector<std::string> names = OwnNames(directory, IsBackupName);
  std::erase(names, made->name);
  for (std::size_t i = 0; i + keep <= names.size(); ++i) {
    made->removal_error = RemoveBackup(names[i], directory);
    made->removal_name = names[i];
    if (made->removal_error != 0) return;
    made->removed.push_back(names[i]);
  }
}

DatedBackup FailedBackup(int error, const std::string& file) {
  DatedBackup failed;
  failed.copy.state = BackupState::kFailed;
  failed.copy.error = error;
  failed.copy.file = file;
  return failed;
}

DatedBackup BusyBackup() {
  DatedBackup busy;
  busy.is_busy = true;
  return busy;
}

// --- the list

void CountReports(BackupFiles& files, ListedBackup* listed) {
  for (const auto& [path, hex] : files.Checksums()) {
    struct stat status = {};
    const int directory = files.Tree().Containing(path);
    const bool is_there =
        directory >= 0 && file::StatusOf(file::NameOf(path).c_str(), status, AT_SYMLINK_NOFOLLOW, directory) == 0;
    if (!is_there || !S_ISREG(status.st_mode)) listed->state = ListedState::kDamaged;
    if (is_there) listed->bytes += static_cast<std::uint64_t>(status.st_size);
    const std::string ending = std::string(".ind") + (files.IsCompressed() ? kCompressedEnding : "");
    if (!path.ends_with(ending)) continue;
    const std::string data = path.substr(0, path.size() - ending.size()) + ".dat" + ending.substr(4);
    listed->reports += files.Checksums().count(data);
  }
}

ListedBackup ListOne(const std::string& name, int directory) {
  ListedBackup listed = {.name = name};
  if (!IsBackupName(name)) {
    listed.state = ListedState::kUnfinished;
    return listed;
  }
  BackupFiles files = BackupFiles::OpenIn(name, directory);
  listed.is_compressed = files.IsCompressed();
  listed.left_out = files.LeftOut().size();
  if (listed.left_out != 0) listed.state = ListedState::kIncomplete;
  if (files.Error() != 0) listed.state = ListedState::kDamaged;
  if (files.Error() == 0) CountReports(files, &listed);
  return listed;
}

}  // namespace

bool IsBackupName(std::string_view name) {
  if (name.size() < kNamePattern.size()) return false;
  for (std::size_t i = 0; i < kNamePattern.size(); ++i) {
    const bool is_digit = name[i] >= '0' && name[i] <= '9';
    if (kNamePattern[i] == 'd' ? !is_digit : name[i] != kNamePattern[i]) return false;
  }
  const std::string_view count = name.substr(kNamePattern.size());
  return count.empty() || (count.size() == 2 && count[0] == '-' && count[1] >= '2' && count[1] <= '9');
}

DatedBackup MakeDatedBackup(const std::string& report_directory, const std::string& backups,
                            const DatedBackupOptions& options) {
  const file::Descriptor directory = OpenNamedDirectory(backups);
  int error = errno;
  if (!directory.IsOpen()) return FailedBackup(error, backups);
  error = file::TryLock(directory.Number());
  if (error == EWOULDBLOCK) return BusyBackup();
  if (error != 0) return FailedBackup(error, backups);
  for (const std::string& name : OwnNames(directory.Number(), IsUnfinishedName)) {
    (void)RemoveTree(name, directory.Number());  // what cannot be removed stays listed as unfinished
  }
  DatedBackup made;
  made.name = FreeName(options.now, directory.Number());
  if (made.name.empty()) return FailedBackup(EEXIST, PathIn(backups, NameOfTime(options.now)));
  const char* const folder = options.is_compressed ? kCompressedFolder : kPlainFolder;
  BackupForm form = {.folder = folder};
  if (options.is_compressed) form.after_copy = CompressFile;
  form.finish = [&](const BackupResult& result, int target) { return FinishBackup(folder, result, target); };
  made.copy = BackupReports(report_directory, PathIn(backups, made.name), form);
  if (made.copy.state != BackupState::kDone) made.name.clear();
  const bool is_rotated = options.keep != 0 && !made.name.empty() && HasEveryItem(made.copy);
  if (is_rotated) RemoveOldBackups(options.keep, directory.Number(), &made);
  return made;
}

BackupList ListBackups(const std::string& backups) {
  BackupList list;
  const file::Descriptor directory = OpenNamedDirectory(backups);
  list.error = directory.IsOpen() ? 0 : errno;
  std::vector<std::string> names;
  if (list.error == 0) list.error = file::ListNames(directory.Number(), names);
  if (list.error != 0) return list;
  std::erase_if(names, [](const std::string& name) { return !IsBackupName(name) && !IsUnfinishedName(name); });
  std::sort(names.begin(), names.end());
  // All names are read before the first backup is opened.
  for (const std::string& name : names) list.backups.push_back(ListOne(name, directory.Number()));
  return list;
}

}  // namespace qx::report
