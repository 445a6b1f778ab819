#include "reportfile/tools/StoreBackup.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <string_view>
#include <system_error>
#include <utility>

#include "reportfile/DirectoryListing.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/StoreCopy.h"
#include "reportfile/tools/StoreVerify.h"

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

struct Found {
  std::vector<std::string> directories;
  std::vector<std::string> files;
  std::vector<std::string> others;
  std::vector<BackupItem> unread;  // whose status cannot be read
};

enum class EntryKind { kFile, kDirectory, kOther };

// 0 or the error number. A link is what it leads to, but none leads to a directory; one that leads nowhere is an other.
int ReadKind(const std::string& path, EntryKind* kind) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) return errno;
  const bool is_link = S_ISLNK(status.st_mode);
  const int error = is_link && stat(path.c_str(), &status) != 0 ? errno : 0;
  const bool is_directory = !is_link && S_ISDIR(status.st_mode);
  *kind = is_directory ? EntryKind::kDirectory : S_ISREG(status.st_mode) ? EntryKind::kFile : EntryKind::kOther;
  return error == ENOENT || error == ENOTDIR || error == ELOOP ? 0 : error;
}

BackupItem Unread(const std::string& name, int error) {
  const BackupItemState state = error == ENOENT ? BackupItemState::kGone : BackupItemState::kUnreadable;
  return {.name = name, .kind = BackupItemKind::kFile, .state = state, .error = error};
}

// True for a directory whose entries are still to be listed.
bool AddName(const std::string& directory, const std::string& name, Found* listing) {
  EntryKind kind = EntryKind::kOther;
  const int error = ReadKind(PathIn(directory, name), &kind);
  if (error != 0) return listing->unread.push_back(Unread(name, error)), false;
  if (kind == EntryKind::kFile) listing->files.push_back(name);
  if (kind == EntryKind::kDirectory) listing->directories.push_back(name);
  if (kind == EntryKind::kOther) listing->others.push_back(name);
  return kind == EntryKind::kDirectory;
}

// Not with the language's own iterator, which ends the program when memory runs out.
int ListFiles(const std::string& directory, Found* listing) {
  std::vector<std::string> open = {""};  // below `directory`
  while (!open.empty()) {
    const std::string parent = std::move(open.back());
    open.pop_back();
    const bool is_top = parent.empty();
    const std::string path = is_top ? directory : PathIn(directory, parent);
    const Listing found = ListDirectory(path);
    if (found.error != 0) return found.error;
    for (const std::string& name : found.names) {
      const std::string below = is_top ? name : PathIn(parent, name);
      if (AddName(directory, below, listing)) open.push_back(below);
    }
  }
  return 0;
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

class Backup {
 public:
  Backup(std::string source, std::string target)
      : source_(WithoutTrailingSlashes(std::move(source))), target_(WithoutTrailingSlashes(std::move(target))) {}

  BackupResult Run() {
    struct stat status = {};
    if (stat(source_.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return End(BackupState::kNotFound);
    if (!IsMissingOrEmptyDirectory(target_) || IsWithin(target_, source_)) return End(BackupState::kRefused);
    PrivateDirectory directory(target_ + ".partial-");
    if (directory.Error() != 0) return Failed(directory.Error(), directory.Path());
    if (!CopyTree(directory.Path()) || !PutInPlace(directory.Path(), status.st_mode & 0777)) return result_;
    directory.Release();
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

  bool CopyTree(const std::string& directory) {
    ReportTree tree = ListReports(source_);
    if (tree.error != 0) return Failed(tree.error, source_), false;
    directories_ = std::move(tree.directories);
    for (const std::string& name : directories_) {
      const std::string path = PathIn(directory, name);
      if (mkdir(path.c_str(), S_IRWXU) != 0) return Failed(errno, path), false;
    }
    for (BackupItem& item : tree.items) {
      if (!Copy(item, directory)) return false;
      result_.items.push_back(std::move(item));
    }
    return true;
  }

  // False: the target cannot be written, so there will be no backup.
  bool Copy(BackupItem& item, const std::string& directory) {
    const std::string from = PathIn(source_, item.name);
    const std::string to = PathIn(directory, item.name);
    if (item.kind == BackupItemKind::kSkipped || item.state != BackupItemState::kCopied) return true;
    return item.kind == BackupItemKind::kStore ? CopyReport(item, from, to) : CopyFile(item, from, to);
  }

  bool CopyReport(BackupItem& item, const std::string& from, const std::string& to) {
    const StoreCopy copy = CopyStore(from, to);
    item.was_written = copy.was_written;
    if (copy.state == StoreCopyState::kFailed) return NoteError(item, copy.error, copy.is_source_error, copy.file);
    if (copy.state == StoreCopyState::kNeverStill) item.state = BackupItemState::kNeverStill;
    if (copy.state == StoreCopyState::kGone) item.state = BackupItemState::kGone;
    if (copy.state != StoreCopyState::kCopied) return true;
    const StoreVerdict verdict = VerifyStore(to);
    item.records = verdict.look.header.highestIndex;
    if (verdict.state != StoreState::kSound) item.state = BackupItemState::kDamaged;
    return true;
  }

  // A file that others replace or write is copied again until it stands as it stood before.
  bool CopyFile(BackupItem& item, const std::string& from, const std::string& to) {
    for (int tries = 0; tries < kFileTriesMax; ++tries) {
      const CopiedFile copy = CopyRegularFile(from, to);
      if (copy.error == ENOENT && copy.is_source_error) item.state = BackupItemState::kGone;
      if (item.state == BackupItemState::kGone) return true;
      if (copy.error != 0) return NoteError(item, copy.error, copy.is_source_error, copy.is_source_error ? from : to);
      if (IsUnchanged(from, copy.status)) return true;
      (void)unlink(to.c_str());
    }
    item.state = BackupItemState::kNeverStill;
    return true;
  }

  bool NoteError(BackupItem& item, int error, bool is_source_error, const std::string& file) {
    if (!is_source_error) return Failed(error, file), false;
    item.state = BackupItemState::kUnreadable;
    item.error = error;
    return true;
  }

  static bool IsUnchanged(const std::string& path, const struct stat& before) {
    struct stat now = {};
    return stat(path.c_str(), &now) == 0 && now.st_ino == before.st_ino && now.st_size == before.st_size &&
           now.st_mtim.tv_sec == before.st_mtim.tv_sec && now.st_mtim.tv_nsec == before.st_mtim.tv_nsec;
  }

  // Permissions and syncs from the innermost directory outwards, then the one step that makes it a backup.
  bool PutInPlace(const std::string& directory, mode_t mode) {
    for (auto name = directories_.rbegin(); name != directories_.rend(); ++name) {
      struct stat status = {};
      const bool is_known = stat(PathIn(source_, *name).c_str(), &status) == 0;
      if (!FinishDirectory(PathIn(directory, *name), is_known ? status.st_mode & 0777 : S_IRWXU)) return false;
    }
    if (!FinishDirectory(directory, mode)) return false;
    // An empty directory at the target is replaced in the same step; anything else has come meanwhile and stays.
    if (rename(directory.c_str(), target_.c_str()) != 0) return Failed(errno, target_), false;
    (void)SyncPath(ParentOf(target_));  // the backup is whole either way; only its name could be lost in a crash
    return true;
  }

  bool FinishDirectory(const std::string& path, mode_t mode) {
    if (chmod(path.c_str(), mode | S_IRWXU) != 0) return Failed(errno, path), false;
    if (const int error = SyncPath(path)) return Failed(error, path), false;
    return true;
  }

  const std::string source_;
  const std::string target_;
  std::vector<std::string> directories_;
  BackupResult result_;
};

}  // namespace

BackupResult BackupReports(const std::string& report_directory, const std::string& target) {
  return Backup(report_directory, target).Run();
}

ReportTree ListReports(const std::string& directory) {
  Found listing;
  ReportTree tree;
  tree.error = ListFiles(directory, &listing);
  tree.directories = std::move(listing.directories);
  std::sort(tree.directories.begin(), tree.directories.end());  // so each comes before what it holds
  tree.items = std::move(listing.unread);
  AddFiles(listing.files, &tree.items);
  for (std::string& name : listing.others) {
    tree.items.push_back({.name = std::move(name), .kind = BackupItemKind::kSkipped});
  }
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
