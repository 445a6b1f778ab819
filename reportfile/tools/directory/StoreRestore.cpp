#include "reportfile/tools/directory/StoreRestore.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "base/File.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/StoreVerify.h"
#include "reportfile/tools/WritingProcesses.h"

namespace qx::report {

namespace {

namespace fs = std::filesystem;

constexpr long kBetweenChecksNanoseconds = 250'000'000;
constexpr mode_t kReportDirectoryMode = 0711;

std::vector<std::string> FilesOf(const RestoreItem& item) { return report::FilesOf(item.kind, item.name); }

// Opens the file of this path below the top for reading, without following a link. After a failure the file is not
// open, and errno has the reason.
FileBytes OpenBelow(DirectoriesBelow& top, const std::string& path) {
  const int directory = top.IsOpen() ? top.Containing(path) : -1;
  if (directory >= 0) return FileBytes(OpenForReading(file::NameOf(path), directory));
  if (!top.IsOpen()) errno = ENOENT;
  return FileBytes(file::Descriptor());
}

// 0 or the error number.
int StatusBelow(DirectoriesBelow& top, const std::string& path, struct stat& status) {
  if (!top.IsOpen()) return ENOENT;
  const int directory = top.Containing(path);
  return directory < 0 ? errno : file::StatusOf(file::NameOf(path).c_str(), status, AT_SYMLINK_NOFOLLOW, directory);
}

// True if the directory of this path, or one above it, is a symbolic link.
bool HasLinkAbove(DirectoriesBelow& top, const std::string& path) {
  struct stat status = {};
  for (std::string above = DirectoriesBelow::Above(path); !above.empty(); above = DirectoriesBelow::Above(above)) {
    if (StatusBelow(top, above, status) == 0 && S_ISLNK(status.st_mode)) return true;
  }
  return false;
}

bool HaveEqualBytes(FileBytes& left, FileBytes& right) {
  if (!left.IsOpen() || !right.IsOpen() || left.Size() != right.Size()) return false;
  WindowedBytes left_window(left);
  WindowedBytes right_window(right);
  for (std::int64_t at = 0;;) {
    const std::string_view left_bytes = left_window.At(at);
    const std::string_view right_bytes = right_window.At(at);
    if (left_bytes != right_bytes) return false;
    if (left_bytes.empty()) return left.Error() == 0 && right.Error() == 0;
    at += std::ssize(left_bytes);
  }
}

bool HaveEqualBytes(DirectoriesBelow& left_top, DirectoriesBelow& right_top, const std::string& path) {
  FileBytes left = OpenBelow(left_top, path);
  FileBytes right = OpenBelow(right_top, path);
  return HaveEqualBytes(left, right);
}

// The values that show whether a file was written between two checks.
struct Snapshot {
  struct stat status = {};
  IndexHeader header;

  bool operator==(const Snapshot& other) const {
    return status.st_size == other.status.st_size && status.st_mtim.tv_sec == other.status.st_mtim.tv_sec &&
           status.st_mtim.tv_nsec == other.status.st_mtim.tv_nsec && header == other.header;
  }
};

Snapshot SnapshotOf(DirectoriesBelow& reports, const std::string& path) {
  Snapshot snapshot;
  FileBytes file = OpenBelow(reports, path);
  if (!file.IsOpen() || file::StatusOf(file.Number(), snapshot.status) != 0) return snapshot;
  (void)file.ReadAt(0, &snapshot.header, sizeof snapshot.header);  // a shorter file is compared up to its end
  return snapshot;
}

// True if a writer holds the lock of the file.
bool IsLocked(DirectoriesBelow& reports, const std::string& path) {
  const FileBytes file = OpenBelow(reports, path);
  return file.IsOpen() && file::TryLock(file.Number()) == EWOULDBLOCK;
}

// The two directories of a restore, open from its beginning to its end.
struct Directories {
  Directories(const std::string& backup_path, const std::string& reports_path)
      : backup_name(backup_path),
        reports_name(reports_path),
        backup(OpenNamedDirectory(backup_path)),
        backup_error(backup.IsOpen() ? 0 : errno),
        reports(OpenNamedDirectory(reports_path)),
        reports_error(reports.IsOpen() ? 0 : errno) {}

  std::string backup_name;
  std::string reports_name;
  DirectoriesBelow backup;
  int backup_error;
  DirectoriesBelow reports;  // not open if it does not exist yet
  int reports_error;
};

class Planner {
 public:
  // With empty `names`, everything is restored.
  Planner(Directories& directories, const std::vector<std::string>& names) : directories_(directories), names_(names) {}

  RestoreResult Run() {
    const auto& [backup_name, reports_name, backup, backup_error, reports, reports_error] = directories_;
    if (backup_error == ENOENT || backup_error == ENOTDIR) return End(RestoreState::kNotFound);
    if (backup_error != 0) return Failed(backup_error, backup_name);
    if (reports_error != 0 && reports_error != ENOENT) return Failed(reports_error, reports_name);
    if (IsWithin(backup_name, reports_name) || IsWithin(reports_name, backup_name)) return End(RestoreState::kRefused);
    const ReportTree tree = ListReports(backup.Top());
    if (tree.error != 0) return Failed(tree.error, backup_name);
    for (const BackupItem& found : tree.items) {
      if (found.state == BackupItemState::kUnreadable) return Failed(found.error, PathIn(backup_name, found.name));
      const bool is_restored = found.kind != BackupItemKind::kSkipped && found.state == BackupItemState::kCopied;
      if (is_restored && IsSelected(found.name)) result_.items.push_back(Planned(found));
    }
    if (const std::string* const name = NameWithoutItem()) return MissingName(*name);
    FindLiveReports();
    return End(RestoreState::kPlanned);
  }

 private:
  RestoreResult End(RestoreState state) {
    result_.state = state;
    return std::move(result_);
  }

  RestoreResult Failed(int error, std::string file) {
    result_.error = error;
    result_.file = std::move(file);
    return End(RestoreState::kFailed);
  }

  RestoreResult MissingName(std::string name) {
    result_.file = std::move(name);
    return End(RestoreState::kNoSuchItem);
  }

  bool IsSelected(const std::string& name) const {
    return names_.empty() || std::find(names_.begin(), names_.end(), name) != names_.end();
  }

  // A requested name that the backup lacks; null if it has all of them.
  const std::string* NameWithoutItem() const {
    const auto name = std::find_if(names_.begin(), names_.end(), [this](const std::string& each) {
      return std::none_of(result_.items.begin(), result_.items.end(),
                          [&each](const RestoreItem& item) { return item.name == each; });
    });
    return name != names_.end() ? &*name : nullptr;
  }

  RestoreItem Planned(const BackupItem& found) const {
    RestoreItem item = {.name = found.name, .kind = found.kind};
    item.is_link = item.kind == BackupItemKind::kLink || HasLinkAbove(directories_.reports, item.name);
    bool is_same = !FilesOf(item).empty();
    for (const std::string& file : FilesOf(item)) {
      struct stat status = {};
      const bool exists = StatusBelow(directories_.reports, file, status) == 0;
      if (exists) item.action = RestoreAction::kReplace;
      item.is_link = item.is_link || (exists && S_ISLNK(status.st_mode));
      is_same = is_same && HaveEqualBytes(directories_.backup, directories_.reports, file);
    }
    if (is_same) item.action = RestoreAction::kSame;
    item.is_damaged =
        item.kind == BackupItemKind::kHalfStore || (item.kind == BackupItemKind::kStore && IsDamaged(item.name));
    return item;
  }

  // True if the report in the backup has findings or cannot be read. One scan is enough, because a backup has no
  // writer.
  bool IsDamaged(const std::string& base_path) const {
    FileBytes index = OpenBelow(directories_.backup, IndexFileName(base_path));
    FileBytes data = OpenBelow(directories_.backup, DataFileName(base_path));
    if (!index.IsOpen() || !data.IsOpen()) return true;
    return !ScanStore(index, data).findings.empty() || index.Error() != 0 || data.Error() != 0;
  }

  std::vector<Snapshot> SnapshotsOfAll() const {
    std::vector<Snapshot> snapshots;
    for (const RestoreItem& item : result_.items) {
      for (const std::string& file : FilesOf(item)) snapshots.push_back(SnapshotOf(directories_.reports, file));
    }
    return snapshots;
  }

  std::optional<FileKey> KeyAt(const std::string& path) const {
    struct stat status = {};
    if (StatusBelow(directories_.reports, path, status) != 0) return std::nullopt;
    return FileKey(status.st_dev, status.st_ino);
  }

  // Finds reports that an agent has open. An agent keeps the header in memory, so its next record would damage the
  // restored files.
  void FindLiveReports() {
    std::set<FileKey> keys;
    for (const RestoreItem& item : result_.items) {
      for (const std::string& file : FilesOf(item)) {
        if (const auto key = KeyAt(file)) keys.insert(*key);
      }
    }
    if (keys.empty()) return;
    const std::vector<Snapshot> before = SnapshotsOfAll();
    const timespec pause = {.tv_sec = 0, .tv_nsec = kBetweenChecksNanoseconds};
    (void)nanosleep(&pause, nullptr);  // a shorter pause only notices fewer writes
    NoteLiveReports(before, SnapshotsOfAll(), FindWritingProcesses(keys));
  }

  void NoteLiveReports(const std::vector<Snapshot>& before, const std::vector<Snapshot>& after,
                       const std::vector<WritingProcess>& writing) {
    std::size_t at = 0;
    for (RestoreItem& item : result_.items) {
      for (const std::string& file : FilesOf(item)) {
        const bool is_live = before[at] != after[at] || IsLocked(directories_.reports, file);
        item.is_being_written = item.is_being_written || is_live;
        ++at;
        const std::optional<FileKey> key = KeyAt(file);
        for (const WritingProcess& writer : writing) {
          if (key == writer.file) item.writers.push_back(writer.process);
        }
      }
      std::sort(item.writers.begin(), item.writers.end());
      item.writers.erase(std::unique(item.writers.begin(), item.writers.end()), item.writers.end());
      item.is_being_written = item.is_being_written || !item.writers.empty();
    }
  }

  Directories& directories_;
  const std::vector<std::string>& names_;
  RestoreResult result_;
};

RestoreResult Failed(RestoreResult result, int error, std::string file) {
  result.state = RestoreState::kFailed;
  result.error = error;
  result.file = std::move(file);
  return result;
}

// Creates the directory and the missing ones above it. 0 or the error number.
int MakeDirectories(const std::string& path) {
  int error = file::MakeDirectory(path.c_str(), kReportDirectoryMode);
  if (error == ENOENT) {
    error = MakeDirectories(file::DirectoryOf(path));
    if (error == 0) error = file::MakeDirectory(path.c_str(), kReportDirectoryMode);
  }
  return error == EEXIST ? 0 : error;
}

// The new files, in the directories of the files that they replace, under private names until they are renamed. The
// destructor removes files that were not renamed, and new directories that are empty.
class StagedFiles {
 public:
  StagedFiles(Directories& directories) : directories_(directories), prefix_(WithRandomEnd(".restore-")) {}
  ~StagedFiles() {
    for (const Staged& staged : files_) Remove(staged.path, staged.new_name, 0);
    for (auto path = made_.rbegin(); path != made_.rend(); ++path) Remove(*path, file::NameOf(*path), AT_REMOVEDIR);
  }
  StagedFiles(const StagedFiles&) = delete;
  StagedFiles& operator=(const StagedFiles&) = delete;

  // Makes the directory of this path, with the permissions that it has in the backup. Returns 0 or the error number.
  [[nodiscard]] int AddDirectory(const std::string& path) {
    struct stat status = {};
    const int source = directories_.backup.At(path);
    if (source < 0) return errno;
    if (const int error = file::StatusOf(source, status); error != 0) return error;
    const int above = directories_.reports.Containing(path);
    if (above < 0) return errno;
    const int error = file::MakeDirectory(file::NameOf(path).c_str(), (status.st_mode & 0777) | S_IRWXU, above);
    if (error == 0) made_.push_back(path);
    return error == EEXIST ? 0 : error;
  }

  // Copies the backup's file of this path under a private name. 0 or the error number.
  [[nodiscard]] int AddFile(const std::string& path) {
    const std::string name = file::NameOf(path);
    const int from = directories_.backup.Containing(path);
    if (from < 0) return errno;
    const int to = directories_.reports.Containing(path);
    if (to < 0) return errno;
    struct stat like = {};
    int error = file::StatusOf(name.c_str(), like, AT_SYMLINK_NOFOLLOW, to);
    if (error == 0 && !S_ISREG(like.st_mode))
      return S_ISDIR(like.st_mode) ? EISDIR : S_ISLNK(like.st_mode) ? ELOOP : EINVAL;
    if (error == ENOENT) error = file::StatusOf(name.c_str(), like, AT_SYMLINK_NOFOLLOW, from);
    if (error != 0) return error;
    like.st_atim = {.tv_sec = 0, .tv_nsec = UTIME_NOW};  // followers must notice that the file was written
    like.st_mtim = like.st_atim;
    const std::string new_name = prefix_ + "-" + std::to_string(files_.size());
    files_.reserve(files_.size() + 1);
    const CopiedFile copy = CopyRegularFile(name, from, new_name, to, &like);
    if (copy.error == 0) files_.push_back({.path = path, .new_name = new_name});
    return copy.error;
  }

  // Renames every file to its final name, and syncs the directories. Sets the file that failed. 0 or the error number.
  [[nodiscard]] int RenameIntoPlace(std::string* failed) {
    made_.clear();
    std::set<std::string> directories;
    for (const Staged& staged : files_) directories.insert(DirectoriesBelow::Above(staged.path));
    while (!files_.empty()) {
      const Staged& staged = files_.back();
      *failed = staged.path;
      const int directory = directories_.reports.Containing(staged.path);
      if (directory < 0) return errno;
      const std::string name = file::NameOf(staged.path);
      const int error = file::Rename(directory, staged.new_name.c_str(), directory, name.c_str());
      if (error != 0) return error;
      files_.pop_back();
    }
    for (const std::string& path : directories) {
      *failed = path;
      const int directory = directories_.reports.At(path);
      if (directory < 0) return errno;
      if (const int error = file::Sync(directory); error != 0) return error;
    }
    return 0;
  }

 private:
  struct Staged {
    std::string path;      // its final path, below the report directory
    std::string new_name;  // in the same directory
  };

  void Remove(const std::string& path, const std::string& name, int flags) {
    const int directory = directories_.reports.Containing(path);
    if (directory >= 0) (void)file::Remove(name.c_str(), flags, directory);  // what cannot be removed stays
  }

  Directories& directories_;
  std::string prefix_;
  std::vector<Staged> files_;
  std::vector<std::string> made_;
};

// True if an item of the plan is in the directory or below it.
bool IsAboveAnItem(const std::string& directory, const RestoreResult& plan) {
  return std::any_of(plan.items.begin(), plan.items.end(),
                     [below = directory + "/"](const RestoreItem& item) { return item.name.starts_with(below); });
}

// Makes the directories, and copies the files under private names. Without `is_whole`, only the directories of the
// plan's items are made. Sets the file that failed. Returns 0 or the error number.
int StageBackup(const RestoreResult& plan, bool is_whole, Directories& directories, StagedFiles& staged,
                std::string* failed) {
  const ReportTree tree = ListReports(directories.backup.Top());
  *failed = directories.backup_name;
  if (tree.error != 0) return tree.error;
  for (const std::string& path : tree.directories) {
    if (!is_whole && !IsAboveAnItem(path, plan)) continue;
    *failed = PathIn(directories.reports_name, path);
    if (const int error = staged.AddDirectory(path); error != 0) return error;
  }
  for (const RestoreItem& item : plan.items) {
    for (const std::string& path : FilesOf(item)) {
      *failed = PathIn(directories.reports_name, path);
      if (const int error = staged.AddFile(path); error != 0) return error;
    }
  }
  return 0;
}

// The first file of the plan that does not have the bytes of the backup; unset if all have.
std::optional<std::string> FileNotRestored(const RestoreResult& plan, Directories& directories) {
  for (const RestoreItem& item : plan.items) {
    for (const std::string& path : FilesOf(item)) {
      if (!HaveEqualBytes(directories.backup, directories.reports, path)) return PathIn(directories.reports_name, path);
    }
  }
  return std::nullopt;
}

// Removes the backup. Fails if the backup's name no longer leads to the directory that was restored.
int RemoveBackup(Directories& directories) {
  const std::string name = file::NameOf(directories.backup_name);
  const file::Descriptor above = file::Open(file::DirectoryOf(directories.backup_name).c_str(), O_PATH | O_DIRECTORY);
  if (!above.IsOpen()) return errno;
  struct stat opened = {};
  struct stat named = {};
  int error = file::StatusOf(directories.backup.Top(), opened);
  if (error == 0) error = file::StatusOf(name.c_str(), named, AT_SYMLINK_NOFOLLOW, above.Number());
  if (error == 0 && !file::IsSameFile(opened, named)) error = S_ISLNK(named.st_mode) ? ELOOP : ESTALE;
  if (error == 0) error = RemoveContents(directories.backup.Top());
  return error == 0 ? file::Remove(name.c_str(), AT_REMOVEDIR, above.Number()) : error;
}

std::string AbsoluteWithoutSlash(const std::string& path) {
  std::error_code error;
  std::string absolute = fs::absolute(path, error).lexically_normal().string();
  while (absolute.size() > 1 && absolute.ends_with('/')) absolute.pop_back();
  return absolute;
}

template <typename Predicate>
bool HasItem(const RestoreResult& plan, Predicate predicate) {
  return std::any_of(plan.items.begin(), plan.items.end(), predicate);
}

// Why the plan cannot be carried out; kPlanned if it can.
RestoreState CheckPlan(const RestoreResult& plan, bool is_forced) {
  if (HasItem(plan, [](const RestoreItem& item) { return item.is_link; })) return RestoreState::kLinked;
  const bool is_blocked =
      HasItem(plan, [](const RestoreItem& item) { return item.is_damaged || item.is_being_written; });
  return is_blocked && !is_forced ? RestoreState::kBlocked : RestoreState::kPlanned;
}

// Copies the files under private names, then renames them. Returns `result` with its new state, and the file that
// failed.
RestoreResult ApplyPlan(RestoreResult result, bool is_whole, Directories& directories) {
  std::string failed = directories.reports_name;
  if (!directories.reports.IsOpen()) {
    int error = MakeDirectories(directories.reports_name);
    if (error != 0) return Failed(std::move(result), error, failed);
    directories.reports = DirectoriesBelow(OpenNamedDirectory(directories.reports_name));
    error = directories.reports.IsOpen() ? 0 : errno;
    if (error != 0) return Failed(std::move(result), error, failed);
  }
  StagedFiles staged(directories);
  if (const int error = StageBackup(result, is_whole, directories, staged, &failed); error != 0) {
    return Failed(std::move(result), error, failed);
  }
  if (const int error = staged.RenameIntoPlace(&failed); error != 0) {
    return Failed(std::move(result), error, PathIn(directories.reports_name, failed));
  }
  if (const auto file = FileNotRestored(result, directories)) return Failed(std::move(result), 0, *file);
  result.state = RestoreState::kDone;
  return result;
}

}  // namespace

RestoreResult PlanRestore(const std::string& backup_directory, const std::string& report_directory,
                          const std::vector<std::string>& names) {
  Directories directories(AbsoluteWithoutSlash(backup_directory), AbsoluteWithoutSlash(report_directory));
  return Planner(directories, names).Run();
}

RestoreResult RestoreReports(const std::string& backup_directory, const std::string& report_directory,
                             const RestoreOptions& options) {
  Directories directories(AbsoluteWithoutSlash(backup_directory), AbsoluteWithoutSlash(report_directory));
  RestoreResult result = Planner(directories, options.names).Run();
  if (result.state != RestoreState::kPlanned) return result;
  result.state = CheckPlan(result, options.force);
  if (result.state != RestoreState::kPlanned) return result;
  result = ApplyPlan(std::move(result), options.names.empty(), directories);
  if (result.state != RestoreState::kDone || !options.consume) return result;
  if (const int error = RemoveBackup(directories); error != 0) {
    return Failed(std::move(result), error, directories.backup_name);
  }
  return result;  // after the removal nothing may allocate
}

}  // namespace qx::report
