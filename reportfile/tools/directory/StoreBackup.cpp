#include "reportfile/tools/directory/StoreBackup.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/File.h"
#include "reportfile/DirectoryCursor.h"
#include "reportfile/DirectoryListing.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/StoreVerify.h"
#include "reportfile/tools/directory/StoreCopy.h"

namespace qx::report {

namespace {

namespace fs = std::filesystem;

constexpr int kFileTriesMax = 5;

enum EndingBits : unsigned { kHasIndex = 1, kHasData = 2, kHasBoth = 3 };

struct Ending {
  std::string base;
  unsigned bit;
};

// "r1.ind" => r1, kHasIndex; "r1.names" => r1.names, 0
Ending EndingOf(const std::string& name) {
  constexpr std::size_t kEndingBytes = 4;
  const bool is_index = name.size() > kEndingBytes && name.ends_with(".ind");
  const bool is_data = name.size() > kEndingBytes && name.ends_with(".dat");
  if (!is_index && !is_data) return {name, 0};
  return {name.substr(0, name.size() - kEndingBytes), is_index ? kHasIndex : kHasData};
}

// The entries below a directory, by path from it.
struct FoundNames {
  std::vector<std::string> directories;
  std::vector<std::string> files;
  std::vector<BackupItem> others;  // links, entries that are neither file nor directory, and unreadable ones
};

BackupItem Unread(const std::string& name, int error) {
  const BackupItemState state = error == ENOENT ? BackupItemState::kGone : BackupItemState::kUnreadable;
  return {.name = name, .kind = BackupItemKind::kFile, .state = state, .error = error};
}

// Adds the entry `name` of the open `directory`, with `path` from the top. True for a directory.
bool AddEntry(int directory, const std::string& name, const std::string& path, FoundNames* found) {
  struct stat status = {};
  const int error = file::StatusOf(name.c_str(), status, AT_SYMLINK_NOFOLLOW, directory);
  if (error != 0) {
    found->others.push_back(Unread(path, error));
  } else if (S_ISREG(status.st_mode)) {
    found->files.push_back(path);
  } else if (S_ISDIR(status.st_mode)) {
    found->directories.push_back(path);
    return true;
  } else {
    const bool is_link = S_ISLNK(status.st_mode);
    found->others.push_back({.name = path, .kind = is_link ? BackupItemKind::kLink : BackupItemKind::kSkipped});
  }
  return false;
}

// A directory on the way down, with the names in it that are still to be handled.
struct Level {
  std::string path;  // from the top
  std::vector<std::string> names = {};
};

// Enters a subdirectory and lists it. A subdirectory that was removed meanwhile counts as empty. Returns 0 or the error
// number.
int EnterAndList(DirectoryCursor* cursor, const std::string& name, const std::string& path,
                 std::vector<Level>* levels) {
  if (const int error = cursor->Enter(name); error != 0) return error == ENOENT ? 0 : error;
  levels->push_back({.path = path});
  return file::ListNames(cursor->Number(), levels->back().names);
}

BackupItem Unlisted(const std::string& path, int error) {
  return {.name = path, .kind = BackupItemKind::kSkipped, .state = BackupItemState::kUnreadable, .error = error};
}

// 0 or the error number of a directory that ends the walk.
int FindNames(int directory, Unlistable unlistable, FoundNames* found) {
  DirectoryCursor cursor;
  file::Descriptor top = file::OpenDirectory(".", 0, directory);  // with a read position of its own
  if (!top.IsOpen()) return errno;
  if (const int error = cursor.Begin(std::move(top)); error != 0) return error;
  std::vector<Level> levels(1);
  if (const int error = file::ListNames(cursor.Number(), levels.back().names); error != 0) return error;
  while (!levels.empty()) {
    int error = 0;
    if (levels.back().names.empty()) {
      levels.pop_back();
      error = levels.empty() ? 0 : cursor.Leave();
    } else {
      const std::string name = std::move(levels.back().names.back());
      levels.back().names.pop_back();
      const std::string path = PathIn(levels.back().path, name);
      const bool is_directory = AddEntry(cursor.Number(), name, path, found);
      if (is_directory) error = EnterAndList(&cursor, name, path, &levels);
      const bool is_item = error != 0 && unlistable == Unlistable::kIsAnItem;
      if (is_item) found->others.push_back(Unlisted(path, std::exchange(error, 0)));
    }
    if (error != 0) return error;
  }
  return 0;
}

bool IsMissingOrEmptyDirectory(const std::string& path) {
  std::error_code error;
  if (!fs::exists(fs::symlink_status(path, error))) return true;
  const Listing listing = ListDirectory(path);
  return listing.error == 0 && listing.names.empty();
}

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

// Checks a copy, which has no writer. Returns 0 or the error number.
int ScanCopy(const std::string& base, int directory, StoreScan* scan) {
  FileBytes index(OpenForReading(IndexFileName(base), directory));
  int error = errno;
  FileBytes data(OpenForReading(DataFileName(base), directory));
  if (index.IsOpen()) error = errno;
  if (!index.IsOpen() || !data.IsOpen()) return error;
  *scan = ScanStore(index, data);
  return index.Error() != 0 ? index.Error() : data.Error();
}

class Backup {
 public:
  Backup(std::string source, std::string target, const BackupForm& form)
      : source_(WithoutTrailingSlashes(std::move(source))),
        target_(WithoutTrailingSlashes(std::move(target))),
        form_(form) {}

  BackupResult Run() {
    file::Descriptor top = OpenNamedDirectory(source_);
    const int open_error = errno;
    struct stat status = {};
    if (!top.IsOpen() && (open_error == ENOENT || open_error == ENOTDIR)) return End(BackupState::kNotFound);
    if (!top.IsOpen()) return Failed(open_error, source_);
    if (const int error = file::StatusOf(top.Number(), status); error != 0) return Failed(error, source_);
    if (!IsMissingOrEmptyDirectory(target_) || IsWithin(target_, source_)) return End(BackupState::kRefused);
    PrivateDirectory directory(target_ + ".partial-");
    if (directory.Error() != 0) return Failed(directory.Error(), directory.Path());
    DirectoriesBelow from(std::move(top));
    file::Descriptor copy = OpenForCopies(directory.Number());
    const int copy_error = errno;
    if (!copy.IsOpen()) return Failed(copy_error, directory.Path());
    DirectoriesBelow to(std::move(copy));
    const bool is_copied = CopyTree(from, to) && FinishDirectories(from, to, status.st_mode);
    if (is_copied && FinishTarget(directory.Number())) RenameIntoPlace(directory);
    return result_;
  }

 private:
  BackupResult End(BackupState state) {
    result_.state = state;
    return result_;
  }

  BackupResult Failed(int error, std::string file) {
    result_.error = error;
    result_.file = std::move(file);
    return End(BackupState::kFailed);
  }

  // Opens the directory for the copies. After a failure the result is not open, and errno has the reason.
  file::Descriptor OpenForCopies(int target) const {
    if (form_.folder.empty()) return file::OpenDirectory(".", 0, target);
    const int error = file::MakeDirectory(form_.folder.c_str(), S_IRWXU, target);
    if (error == 0) return file::OpenDirectory(form_.folder.c_str(), O_NOFOLLOW, target);
    errno = error;
    return {};
  }

  bool CopyTree(DirectoriesBelow& from, DirectoriesBelow& to) {
    ReportTree tree = ListReports(from.Top());
    if (tree.error != 0) return Failed(tree.error, source_), false;
    directories_ = std::move(tree.directories);
    for (const std::string& path : directories_) {
      const int above = to.Containing(path);
      const int error = above < 0 ? errno : file::MakeDirectory(file::NameOf(path).c_str(), S_IRWXU, above);
      if (error != 0) return Failed(error, PathIn(target_, path)), false;
    }
    // The last item is copied first: `after_copy` may rename the copy of "a" to "a.x", after the item "a.x" was
    // renamed.
    for (auto item = tree.items.rbegin(); item != tree.items.rend(); ++item) {
      if (!Copy(*item, from, to) || !AfterCopy(*item, to)) return false;
    }
    result_.items = std::move(tree.items);
    return true;
  }

  bool AfterCopy(const BackupItem& item, DirectoriesBelow& to) {
    const bool has_copy = item.state == BackupItemState::kCopied || item.state == BackupItemState::kDamaged;
    if (!form_.after_copy || !has_copy) return true;
    for (const std::string& path : FilesOf(item.kind, item.name)) {
      const int directory = to.Containing(path);
      const int error = directory < 0 ? errno : form_.after_copy(file::NameOf(path), directory);
      if (error != 0) return Failed(error, PathIn(target_, path)), false;
    }
    return true;
  }

  // False: the target cannot be written, so there will be no backup.
  bool Copy(BackupItem& item, DirectoriesBelow& from, DirectoriesBelow& to) {
    const bool has_bytes = item.kind != BackupItemKind::kSkipped && item.kind != BackupItemKind::kLink;
    if (!has_bytes || item.state != BackupItemState::kCopied) return true;
    const int from_directory = from.Containing(item.name);
    const int from_error = errno;
    if (from_directory < 0) return NoteError(item, from_error, true);
    const int to_directory = to.Containing(item.name);
    const int to_error = errno;
    if (to_directory < 0) return NoteError(item, to_error, false);
    return item.kind == BackupItemKind::kStore ? CopyReport(item, from_directory, to_directory)
                                               : CopyFile(item, from_directory, to_directory);
  }

  bool CopyReport(BackupItem& item, int from, int to) {
    const std::string base = file::NameOf(item.name);
    const StoreCopy copy = CopyStore(base, base, from, to);
    item.was_written = copy.was_written;
    if (copy.state == StoreCopyState::kFailed) return NoteError(item, copy.error, copy.is_source_error);
    if (copy.state == StoreCopyState::kNeverStill) item.state = BackupItemState::kNeverStill;
    if (copy.state == StoreCopyState::kGone) item.state = BackupItemState::kGone;
    if (copy.state != StoreCopyState::kCopied) return true;
    StoreScan scan;
    const int error = ScanCopy(base, to, &scan);
    item.records = scan.header.highestIndex;
    if (error != 0 || !scan.findings.empty()) item.state = BackupItemState::kDamaged;
    return true;
  }

  // A file that changes during the copy is copied again.
  bool CopyFile(BackupItem& item, int from, int to) {
    const std::string name = file::NameOf(item.name);
    for (int tries = 0; tries < kFileTriesMax; ++tries) {
      const CopiedFile copy = CopyRegularFile(name, from, name, to);
      if (copy.error == ENOENT && copy.is_source_error) item.state = BackupItemState::kGone;
      if (item.state == BackupItemState::kGone) return true;
      if (copy.error != 0) return NoteError(item, copy.error, copy.is_source_error);
      struct stat now = {};
      const int error = file::StatusOf(name.c_str(), now, AT_SYMLINK_NOFOLLOW, from);
      if (error == 0 && file::IsUnchanged(copy.status, now)) return true;
      (void)file::Remove(name.c_str(), 0, to);
    }
    item.state = BackupItemState::kNeverStill;
    return true;
  }

  bool NoteError(BackupItem& item, int error, bool is_source_error) {
    if (!is_source_error) return Failed(error, PathIn(target_, item.name)), false;
    item.state = BackupItemState::kUnreadable;
    item.error = error;
    return true;
  }

  // Sets permissions and syncs, from the innermost directory outwards.
  bool FinishDirectories(DirectoriesBelow& from, DirectoriesBelow& to, mode_t mode) {
    for (auto path = directories_.rbegin(); path != directories_.rend(); ++path) {
      struct stat status = {};
      const int source = from.At(*path);
      const bool is_known = source >= 0 && file::StatusOf(source, status) == 0;
      if (!FinishDirectory(to.At(*path), is_known ? status.st_mode : S_IRWXU, *path)) return false;
    }
    return FinishDirectory(to.Top(), mode, "");
  }

  bool FinishDirectory(int directory, mode_t mode, const std::string& path) {
    int error = directory >= 0 && fchmod(directory, (mode & 0777) | S_IRWXU) == 0 ? 0 : errno;
    if (error == 0) error = file::Sync(directory);
    if (error != 0) (void)Failed(error, PathIn(target_, path));
    return error == 0;
  }

  bool FinishTarget(int target) {
    int error = form_.finish ? form_.finish(result_, target) : 0;
    if (error == 0 && !form_.folder.empty()) error = file::Sync(target);
    if (error != 0) (void)Failed(error, target_);
    return error == 0;
  }

  // This rename makes the directory a backup. It replaces an empty directory at the target. If something else has
  // appeared there since the check, the rename fails, and what is there stays.
  void RenameIntoPlace(PrivateDirectory& directory) {
    if (const int error = directory.RenameTo(file::NameOf(target_)); error != 0) {
      (void)Failed(error, target_);
      return;
    }
    (void)directory.SyncAbove();  // the backup is whole in both cases; only its name could be lost in a crash
  }

  const std::string source_;
  const std::string target_;
  const BackupForm& form_;
  std::vector<std::string> directories_;
  BackupResult result_;
};

}  // namespace

BackupResult BackupReports(const std::string& report_directory, const std::string& target, const BackupForm& form) {
  return Backup(report_directory, target, form).Run();
}

std::vector<std::string> FilesOf(BackupItemKind kind, const std::string& name) {
  if (kind == BackupItemKind::kStore) return {IndexFileName(name), DataFileName(name)};
  if (kind == BackupItemKind::kSkipped || kind == BackupItemKind::kLink) return {};
  return {name};
}

void AddFiles(const std::vector<std::string>& files, std::vector<BackupItem>* items) {
  std::map<std::string, unsigned> stores;
  for (const std::string& file : files) {
    const Ending ending = EndingOf(file);
    if (ending.bit == 0) items->push_back({.name = file, .kind = BackupItemKind::kFile});
    if (ending.bit != 0) stores[ending.base] |= ending.bit;
  }
  for (const auto& [base, bits] : stores) {
    const std::string name = bits == kHasIndex ? IndexFileName(base) : bits == kHasData ? DataFileName(base) : base;
    items->push_back({.name = name, .kind = bits == kHasBoth ? BackupItemKind::kStore : BackupItemKind::kHalfStore});
  }
}

ReportTree ListReports(int directory, Unlistable unlistable) {
  FoundNames found;
  ReportTree tree;
  tree.error = FindNames(directory, unlistable, &found);
  tree.directories = std::move(found.directories);
  std::sort(tree.directories.begin(), tree.directories.end());  // so each directory comes before its content
  tree.items = std::move(found.others);
  AddFiles(found.files, &tree.items);
  std::sort(tree.items.begin(), tree.items.end(),
            [](const BackupItem& a, const BackupItem& b) { return a.name < b.name; });
  return tree;
}

bool IsWithin(const std::string& path, const std::string& directory) {
  std::error_code error;
  const fs::path inner = fs::weakly_canonical(fs::absolute(path, error), error);
  const fs::path outer = fs::weakly_canonical(fs::absolute(directory, error), error);
  const auto [in_outer, in_inner] = std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end());
  return !error && in_outer == outer.end();
}

}  // namespace qx::report
