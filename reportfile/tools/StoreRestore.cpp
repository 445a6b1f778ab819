#include "reportfile/tools/StoreRestore.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "reportfile/ReportFileBase.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/StoreIo.h"
#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/StoreVerify.h"
#include "reportfile/tools/WritingProcesses.h"

namespace qx::report {

namespace {

namespace fs = std::filesystem;

constexpr long kBetweenLooksNanoseconds = 250'000'000;

// The files that an item stands for, below its directory.
std::vector<std::string> FilesOf(const RestoreItem& item) {
  if (item.kind == BackupItemKind::kStore) return {IndexFileName(item.name), DataFileName(item.name)};
  if (item.kind == BackupItemKind::kSkipped) return {};
  return {item.name};
}

bool HaveEqualBytes(const std::string& left_path, const std::string& right_path) {
  FileBytes left(OpenRegularFile(left_path, OpenMode::kRead));
  FileBytes right(OpenRegularFile(right_path, OpenMode::kRead));
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

// What tells that a file was written between two looks.
struct Look {
  std::int64_t bytes = 0;
  timespec written = {};
  IndexHeader header;

  bool operator==(const Look& other) const {
    return bytes == other.bytes && written.tv_sec == other.written.tv_sec && written.tv_nsec == other.written.tv_nsec &&
           header == other.header;
  }
};

Look LookAt(const std::string& path) {
  Look look;
  FileBytes file(OpenRegularFile(path, OpenMode::kRead));
  struct stat status = {};
  if (!file.IsOpen() || fstat(file.Number(), &status) != 0) return look;
  look.bytes = status.st_size;
  look.written = status.st_mtim;
  (void)file.ReadAt(0, &look.header, sizeof look.header);  // a short one is compared as far as it goes
  return look;
}

class Planner {
 public:
  Planner(std::string backup, std::string reports) : backup_(std::move(backup)), reports_(std::move(reports)) {}

  RestoreResult Run() {
    std::error_code error;
    if (!fs::is_directory(backup_, error)) return End(RestoreState::kNotFound);
    if (IsWithin(backup_, reports_) || IsWithin(reports_, backup_)) return End(RestoreState::kRefused);
    const ReportTree tree = ListReports(backup_);
    if (tree.error != 0) return Failed(tree.error, backup_);
    for (const BackupItem& found : tree.items) {
      if (found.state == BackupItemState::kUnreadable) return Failed(found.error, PathIn(backup_, found.name));
      const bool has_bytes = found.kind != BackupItemKind::kSkipped && found.state == BackupItemState::kCopied;
      if (has_bytes) result_.items.push_back(Planned(found));
    }
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

  RestoreItem Planned(const BackupItem& found) const {
    RestoreItem item = {.name = found.name, .kind = found.kind};
    bool is_same = true;
    for (const std::string& file : FilesOf(item)) {
      if (KeyOf(PathIn(reports_, file)).has_value()) item.action = RestoreAction::kReplace;
      is_same = is_same && HaveEqualBytes(PathIn(backup_, file), PathIn(reports_, file));
    }
    if (is_same) item.action = RestoreAction::kSame;
    const bool is_report = item.kind == BackupItemKind::kStore || item.kind == BackupItemKind::kHalfStore;
    if (is_report) item.is_damaged = item.kind == BackupItemKind::kHalfStore || IsDamaged(PathIn(backup_, item.name));
    return item;
  }

  static bool IsDamaged(const std::string& base_path) { return VerifyStore(base_path).state != StoreState::kSound; }

  std::vector<Look> LookAtAll() const {
    std::vector<Look> looks;
    for (const RestoreItem& item : result_.items) {
      for (const std::string& file : FilesOf(item)) looks.push_back(LookAt(PathIn(reports_, file)));
    }
    return looks;
  }

  // An agent keeps the header in memory: what is restored under it, its next record spoils.
  void FindLiveReports() {
    std::set<FileKey> wanted;
    for (const RestoreItem& item : result_.items) {
      for (const std::string& file : FilesOf(item)) {
        if (const auto key = KeyOf(PathIn(reports_, file))) wanted.insert(*key);
      }
    }
    if (wanted.empty()) return;
    const std::vector<Look> before = LookAtAll();
    const timespec pause = {.tv_sec = 0, .tv_nsec = kBetweenLooksNanoseconds};
    (void)nanosleep(&pause, nullptr);  // a shorter pause only sees less
    NoteLiveReports(before, LookAtAll(), FindWritingProcesses(wanted));
  }

  void NoteLiveReports(const std::vector<Look>& before, const std::vector<Look>& after,
                       const std::vector<WritingProcess>& writing) {
    std::size_t at = 0;
    for (RestoreItem& item : result_.items) {
      for (const std::string& file : FilesOf(item)) {
        item.is_being_written = item.is_being_written || before[at] != after[at];
        ++at;
        const std::optional<FileKey> key = KeyOf(PathIn(reports_, file));
        for (const WritingProcess& writer : writing) {
          if (key == writer.file) item.writers.push_back(writer.process);
        }
      }
      std::sort(item.writers.begin(), item.writers.end());
      item.writers.erase(std::unique(item.writers.begin(), item.writers.end()), item.writers.end());
      item.is_being_written = item.is_being_written || !item.writers.empty();
    }
  }

  const std::string backup_;
  const std::string reports_;
  RestoreResult result_;
};

RestoreResult Failed(RestoreResult result, int error, std::string file) {
  result.state = RestoreState::kFailed;
  result.error = error;
  result.file = std::move(file);
  return result;
}

// Copies the backup's directories and files, links to files as what they lead to. Sets the file that failed.
int CopyBackup(const std::string& backup, const RestoreResult& plan, const std::string& to, std::string* failed) {
  const ReportTree tree = ListReports(backup);
  *failed = backup;
  if (tree.error != 0) return tree.error;
  for (const std::string& name : tree.directories) {
    *failed = PathIn(to, name);
    struct stat status = {};
    if (stat(PathIn(backup, name).c_str(), &status) != 0) return errno;
    if (mkdir(failed->c_str(), (status.st_mode & 0777) | S_IRWXU) != 0) return errno;
  }
  for (const RestoreItem& item : plan.items) {
    for (const std::string& file : FilesOf(item)) {
      const CopiedFile copy = CopyRegularFile(PathIn(backup, file), PathIn(to, file));
      *failed = PathIn(copy.is_source_error ? backup : to, file);
      if (copy.error != 0) return copy.error;
    }
  }
  return 0;
}

// The file that did not reach its place; none if all did.
std::optional<std::string> FileNotRestored(const RestoreResult& plan, const std::string& backup,
                                           const std::string& reports) {
  for (const RestoreItem& item : plan.items) {
    for (const std::string& file : FilesOf(item)) {
      if (!HaveEqualBytes(PathIn(backup, file), PathIn(reports, file))) return PathIn(reports, file);
    }
  }
  return std::nullopt;
}

std::string AbsoluteWithoutSlash(const std::string& path) {
  std::error_code error;
  std::string absolute = fs::absolute(path, error).lexically_normal().string();
  while (absolute.size() > 1 && absolute.ends_with('/')) absolute.pop_back();
  return absolute;
}

}  // namespace

RestoreResult PlanRestore(const std::string& backup_directory, const std::string& report_directory) {
  return Planner(AbsoluteWithoutSlash(backup_directory), AbsoluteWithoutSlash(report_directory)).Run();
}

RestoreResult RestoreReports(const std::string& backup_directory, const std::string& report_directory,
                             const RestoreOptions& options) {
  const std::string backup = AbsoluteWithoutSlash(backup_directory);
  const std::string reports = AbsoluteWithoutSlash(report_directory);
  RestoreResult result = PlanRestore(backup, reports);
  if (result.state != RestoreState::kPlanned) return result;
  const bool is_blocked = std::any_of(result.items.begin(), result.items.end(),
                                      [](const RestoreItem& item) { return item.is_damaged || item.is_being_written; });
  if (is_blocked && !options.force) {
    result.state = RestoreState::kBlocked;
    return result;
  }

  const PrivateDirectory copy(reports + ".restore-");  // beside them, where there is room for them
  if (copy.Error() != 0) return Failed(std::move(result), copy.Error(), copy.Path());
  std::string failed;
  if (const int error = CopyBackup(backup, result, copy.Path(), &failed))
    return Failed(std::move(result), error, failed);
  errno = 0;
  const bool is_restored = CReportFileBase::RestoreReportDataFiles(copy.Path());
  const int error = is_restored ? 0 : errno;
  if (const auto file = FileNotRestored(result, backup, reports)) return Failed(std::move(result), error, *file);
  if (!is_restored) return Failed(std::move(result), error, reports);

  result.state = RestoreState::kDone;
  const int remove_error = options.consume ? RemoveTree(backup) : 0;
  if (remove_error != 0) return Failed(std::move(result), remove_error, backup);
  return result;
}

}  // namespace qx::report
