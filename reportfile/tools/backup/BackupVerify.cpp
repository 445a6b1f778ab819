#include "reportfile/tools/backup/BackupVerify.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "base/File.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/StoreVerify.h"
#include "reportfile/tools/backup/Checksums.h"
#include "reportfile/tools/backup/CompressedFile.h"

namespace qx::report {

namespace {

constexpr const char* kPrivatePrefix = "/qxctl-backup-";

// "load.ind.zst" => "load.ind"
std::string WithoutCompressedEnding(const std::string& path) {
  return path.substr(0, path.size() - std::string_view(kCompressedEnding).size());
}

// The items of the files that are stored. In a compressed backup the file "load.ind.zst" counts as "load.ind", and a
// file without the ending ".zst" does not belong to the backup.
std::vector<BackupItem> ItemsOf(const ReportTree& tree, bool is_compressed) {
  if (!is_compressed) return tree.items;
  std::vector<BackupItem> items;
  std::vector<std::string> files;
  for (BackupItem item : tree.items) {
    const bool is_file = item.state == BackupItemState::kCopied && !FilesOf(item.kind, item.name).empty();
    if (is_file && item.name.ends_with(kCompressedEnding)) {
      files.push_back(WithoutCompressedEnding(item.name));
      continue;
    }
    if (is_file) item.kind = BackupItemKind::kSkipped;
    items.push_back(std::move(item));
  }
  AddFiles(files, &items);
  std::sort(items.begin(), items.end(), [](const BackupItem& a, const BackupItem& b) { return a.name < b.name; });
  return items;
}

VerifiedState StateOfError(int error) {
  return error == 0 ? VerifiedState::kSound : error == EBADMSG ? VerifiedState::kChanged : VerifiedState::kUnreadable;
}

// Checks one backup, and remembers which files were compared.
class Verifier {
 public:
  // `expanded` is the open directory for expanded files.
  Verifier(BackupFiles& files, int expanded) : files_(files), expanded_(expanded) {}

  // Compares the files of the item with their checksums.
  VerifiedItem Compare(const BackupItem& found) {
    VerifiedItem item = {.name = found.name, .kind = found.kind};
    if (found.state == BackupItemState::kUnreadable) return WithError(item, found.error);
    const std::vector<std::string> files = FilesOf(found.kind, found.name);
    if (files.empty()) item.state = VerifiedState::kUnlisted;
    for (const std::string& path : files) CompareFile(StoredPath(path), &item);
    return item;
  }

  // Compares the files, then expands them and checks the report.
  VerifiedItem Verify(const BackupItem& found) {
    VerifiedItem item = Compare(found);
    if (item.state == VerifiedState::kSound) Scan(&item);
    return item;
  }

  // The files in the list of checksums that were not found in the backup.
  std::vector<VerifiedItem> Missing() const {
    std::vector<VerifiedItem> items;
    for (const auto& [path, hex] : files_.Checksums()) {
      if (!compared_.contains(path)) items.push_back({.name = path, .state = VerifiedState::kMissing});
    }
    return items;
  }

  // Makes the directory of this path and those above it, with the permissions that they have in the backup. Returns 0
  // or the error number.
  int MakeDirectories(const std::string& path, DirectoriesBelow& to) {
    if (path.empty()) return 0;
    if (const int error = MakeDirectories(DirectoriesBelow::Above(path), to); error != 0) return error;
    struct stat status = {};
    const int source = files_.Tree().At(path);
    int error = source < 0 ? errno : file::StatusOf(source, status);
    if (error != 0) return error;
    const int directory = to.Containing(path);
    if (directory < 0) return errno;
    error = file::MakeDirectory(file::NameOf(path).c_str(), (status.st_mode & 0777) | S_IRWXU, directory);
    return error == EEXIST ? 0 : error;
  }

  // Expands the files of an item, and makes the directories above them. Sets the file that failed. Returns 0 or the
  // error number.
  int Expand(BackupItemKind kind, const std::string& name, DirectoriesBelow& to, std::string* failed) {
    for (const std::string& path : FilesOf(kind, name)) {
      *failed = StoredPath(path);
      if (const int error = MakeDirectories(DirectoriesBelow::Above(path), to); error != 0) return error;
      const int from_directory = files_.Tree().Containing(path);
      if (from_directory < 0) return errno;
      const int to_directory = to.Containing(path);
      if (to_directory < 0) return errno;
      if (const int error = ExpandFile(file::NameOf(path), from_directory, to_directory); error != 0) return error;
    }
    return 0;
  }

 private:
  static VerifiedItem WithError(VerifiedItem item, int error) {
    item.state = VerifiedState::kUnreadable;
    item.error = error;
    return item;
  }

  std::string StoredPath(const std::string& path) const {
    return files_.IsCompressed() ? path + kCompressedEnding : path;
  }

  // Compares a stored file with its checksum. An item keeps the state of its first file that is not sound.
  void CompareFile(const std::string& path, VerifiedItem* item) {
    if (!files_.IsDated()) return;
    compared_.insert(path);
    const auto listed = files_.Checksums().find(path);
    std::string hex;
    const int directory = files_.Tree().Containing(path);
    int error = directory < 0 ? errno : 0;
    if (error == 0) error = ChecksumOf(file::NameOf(path), directory, &hex);
    if (item->state != VerifiedState::kSound) return;
    if (error != 0) {
      *item = WithError(*item, error);
    } else if (listed == files_.Checksums().end()) {
      item->state = VerifiedState::kUnlisted;
    } else if (listed->second != hex) {
      item->state = VerifiedState::kChanged;
    }
  }

  void Scan(VerifiedItem* item) {
    if (item->kind == BackupItemKind::kHalfStore) item->state = VerifiedState::kDamaged;
    if (files_.IsCompressed()) {
      ScanExpanded(item);
    } else if (item->kind == BackupItemKind::kStore) {
      const int directory = files_.Tree().Containing(item->name);
      ScanStoreIn(directory, item);
    }
  }

  void ScanExpanded(VerifiedItem* item) {
    DirectoriesBelow to(file::OpenDirectory(".", 0, expanded_));
    std::string failed;
    const int error = to.IsOpen() ? Expand(item->kind, item->name, to, &failed) : errno;
    if (error != 0) {
      item->state = StateOfError(error);
      item->error = error;
    } else if (item->kind == BackupItemKind::kStore) {
      ScanStoreIn(to.Containing(item->name), item);
    }
    (void)RemoveContents(expanded_);  // what is left is removed with the private directory
  }

  static void ScanStoreIn(int directory, VerifiedItem* item) {
    const std::string base = file::NameOf(item->name);
    FileBytes index(OpenForReading(IndexFileName(base), directory));
    FileBytes data(OpenForReading(DataFileName(base), directory));
    const StoreScan scan = ScanStore(index, data);
    item->records = scan.header.highestIndex;
    item->error = index.Error() != 0 ? index.Error() : data.Error();
    if (!index.IsOpen() || !data.IsOpen()) item->error = EIO;
    if (!scan.findings.empty()) item->state = VerifiedState::kDamaged;
    if (item->error != 0) item->state = VerifiedState::kUnreadable;
  }

  BackupFiles& files_;
  int expanded_;
  std::set<std::string> compared_;
};

// The error number of an item that cannot be restored, otherwise 0. Damaged reports can be restored.
int ErrorOf(const VerifiedItem& item) {
  if (item.state == VerifiedState::kUnreadable) return item.error;
  const bool is_link = item.kind == BackupItemKind::kLink;  // the plan of the restore names it
  return item.state == VerifiedState::kSound || is_link ? 0 : EBADMSG;
}

// Makes the directories and expands the items. Sets the file that failed. 0 or the error number.
int ExpandAll(Verifier& verifier, const std::vector<std::string>& directories, const std::vector<BackupItem>& items,
              int directory, std::string* failed) {
  file::Descriptor top = file::OpenDirectory(".", 0, directory);
  const int open_error = errno;
  if (!top.IsOpen()) return open_error;
  DirectoriesBelow to(std::move(top));
  for (const std::string& path : directories) {
    *failed = path;
    if (const int error = verifier.MakeDirectories(path, to); error != 0) return error;
  }
  for (const BackupItem& item : items) {
    if (const int error = verifier.Expand(item.kind, item.name, to, failed); error != 0) return error;
  }
  return 0;
}

VerifiedBackup FailedVerify(int error, std::string file) {
  VerifiedBackup failed;
  failed.error = error;
  failed.file = std::move(file);
  return failed;
}

}  // namespace

std::unique_ptr<PrivateDirectory> MakeExpandedDirectory(const std::string& temporary) {
  return std::make_unique<PrivateDirectory>(temporary + kPrivatePrefix);
}

VerifiedBackup VerifyBackup(const std::string& directory, const ExpandedDirectoryMaker& make_expanded) {
  BackupFiles files = BackupFiles::Open(directory);
  if (files.Error() != 0) return FailedVerify(files.Error(), files.Failed());
  const std::unique_ptr<PrivateDirectory> expanded = files.IsCompressed() ? make_expanded() : nullptr;
  if (expanded != nullptr && expanded->Error() != 0) return FailedVerify(expanded->Error(), expanded->Path());
  const ReportTree tree = ListReports(files.Tree().Top(), Unlistable::kIsAnItem);
  if (tree.error != 0) return FailedVerify(tree.error, directory);
  VerifiedBackup verified;
  verified.has_checksums = files.IsDated();
  verified.is_compressed = files.IsCompressed();
  verified.left_out = files.LeftOut();
  Verifier verifier(files, expanded != nullptr ? expanded->Number() : -1);
  for (const BackupItem& item : ItemsOf(tree, files.IsCompressed())) verified.items.push_back(verifier.Verify(item));
  for (VerifiedItem& item : verifier.Missing()) verified.items.push_back(std::move(item));
  std::stable_sort(verified.items.begin(), verified.items.end(),
                   [](const VerifiedItem& a, const VerifiedItem& b) { return a.name < b.name; });
  return verified;
}

RestorableBackup::RestorableBackup(const std::string& directory, const std::vector<std::string>& names,
                                   const ExpandedDirectoryMaker& make_expanded) {
  BackupFiles files = BackupFiles::Open(directory);
  error_ = files.Error();
  failed_ = files.Failed();
  is_dated_ = files.IsDated();
  path_ = PathIn(directory, files.Folder());
  if (files.Folder().empty()) path_ = directory;
  if (error_ == 0 && is_dated_) Prepare(files, names, make_expanded);
}

void RestorableBackup::Prepare(BackupFiles& files, const std::vector<std::string>& names,
                               const ExpandedDirectoryMaker& make_expanded) {
  const ReportTree tree = ListReports(files.Tree().Top());
  if (tree.error != 0) return Fail(tree.error, path_);
  const bool is_whole = names.empty();
  std::vector<BackupItem> items = ItemsOf(tree, files.IsCompressed());
  if (!is_whole) {
    std::erase_if(items, [&names](const BackupItem& item) {
      return std::find(names.begin(), names.end(), item.name) == names.end();
    });
  }
  Verifier verifier(files, -1);
  for (const BackupItem& found : items) {
    const VerifiedItem item = verifier.Compare(found);
    if (const int error = ErrorOf(item); error != 0) return Fail(error, item.name);
  }
  const std::vector<VerifiedItem> missing = verifier.Missing();
  if (is_whole && !missing.empty()) return Fail(EBADMSG, missing.front().name);
  if (!files.IsCompressed()) return;
  expanded_ = make_expanded();
  path_ = expanded_->Path();
  std::string failed = path_;
  const int error = expanded_->Error() != 0
                        ? expanded_->Error()
                        : ExpandAll(verifier, is_whole ? tree.directories : std::vector<std::string>(), items,
                                    expanded_->Number(), &failed);
  if (error != 0) Fail(error, failed);
}

void RestorableBackup::Fail(int error, std::string file) {
  error_ = error;
  failed_ = std::move(file);
}

}  // namespace qx::report
