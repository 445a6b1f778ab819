#include "base/tools/ReplacedFile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <new>
#include <utility>

namespace qx {

namespace {

constexpr mode_t kPrivateMode = 0600;
constexpr mode_t kModeMask = 0777;  // no set-id bits: with these the new content could run as the file's owner
constexpr mode_t kGroupMask = 0070;
const char kEditSuffix[] = ".edit";
constexpr int kLockTriesMax = 1000;  // a try fails if another edit has just ended, or a user exchanges the name

ReplaceResult Failed(const std::string& file, int error) { return {ReplaceState::kFailed, file, error}; }

ReplaceResult FailedUnlessDone(const std::string& file, int error) {
  return error == 0 ? ReplaceResult() : Failed(file, error);
}

mode_t ModeThatUmaskLeaves(mode_t mode) {
  const mode_t mask = umask(0);
  (void)umask(mask);
  return mode & ~mask;
}

// Sets the owner first, because a change of owner clears permission bits. If an output cannot get the group, the
// group's permissions are cleared. In the same case an edit fails, because a service may depend on these permissions.
int TakeOver(int descriptor, const struct stat& status, bool needs_group) {
  struct stat own;
  if (const int error = file::StatusOf(descriptor, own); error != 0) return error;
  mode_t mode = status.st_mode & kModeMask;
  if (own.st_uid != status.st_uid || own.st_gid != status.st_gid) {
    const bool is_given = fchown(descriptor, status.st_uid, status.st_gid) == 0;
    const int error = errno;
    if (!is_given && (needs_group || own.st_uid != status.st_uid)) return error;
    if (!is_given) mode &= ~kGroupMask;
  }
  return fchmod(descriptor, mode) == 0 ? 0 : errno;
}

// "registry" => "registry.20261121-101500.bak"; the second backup in the same second is
// "registry.20261121-101500-2.bak".
std::string BackupSuffix(const std::tm& time, int attempt) {
  std::array<char, 64> name;
  (void)std::strftime(name.data(), name.size(), ".%Y%m%d-%H%M%S", &time);
  const std::string number = attempt > 1 ? "-" + std::to_string(attempt) : "";
  return name.data() + number + ".bak";
}

// Six characters that nobody can guess: ".k3XbQ9"
std::string RandomSuffix(int attempt) {
  constexpr std::string_view kCharacters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::array<unsigned char, 6> bytes = {};
  const ssize_t size = getrandom(bytes.data(), bytes.size(), 0);
  if (size != static_cast<ssize_t>(bytes.size())) {  // names that can be guessed are safe because of O_EXCL
    bytes = {static_cast<unsigned char>(attempt), static_cast<unsigned char>(attempt / 256)};
  }
  std::string suffix = ".";
  for (const unsigned char byte : bytes) suffix += kCharacters[byte % kCharacters.size()];
  return suffix;
}

// Creates a file under a name that is still free. The name is the name of `place` and the suffix suffix_of(attempt).
template <typename SuffixOf>
file::Descriptor CreateNext(const FilePlace& place, std::string& suffix, SuffixOf suffix_of) {
  constexpr int kAttemptsMax = 1000;
  file::Descriptor created;
  for (int attempt = 1; attempt <= kAttemptsMax; ++attempt) {
    std::string tried = suffix_of(attempt);
    const std::string name = place.name + tried;
    created = file::Open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, kPrivateMode, place.directory.Number());
    if (created.IsOpen()) suffix = std::move(tried);
    if (created.IsOpen() || errno != EEXIST) break;
  }
  return created;
}

// 0 or the error number.
int FillBackup(file::Descriptor& backup, const FileImage& image) {
  if (const file::Progress written = file::Write(backup.Number(), image.bytes); written.Failed()) return written.error;
  if (const int error = TakeOver(backup.Number(), image.status, true); error != 0) return error;
  const struct timespec times[] = {image.status.st_atim, image.status.st_mtim};
  if (futimens(backup.Number(), times) != 0) return errno;
  if (const int error = file::Sync(backup.Number()); error != 0) return error;
  return backup.Close();
}

// Accepts the file of a killed edit, which this edit then uses: a regular file of this user with one name. Any other
// file is refused (EEXIST).
int CheckOwnFile(int descriptor, struct stat& status) {
  if (const int error = file::StatusOf(descriptor, status); error != 0) return error;
  const bool is_ours = S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink <= 1;
  return is_ours ? 0 : EEXIST;
}

// True if the directory may have an access list. Then the group's permission bits are the most that any entry of the
// list has.
bool HasAccessList(int directory) {
  const file::Descriptor readable = file::OpenDirectory(".", 0, directory);
  return !readable.IsOpen() || fgetxattr(readable.Number(), "system.posix_acl_access", nullptr, 0) > 0;
}

bool MayOthersWrite(int directory, const struct stat& status) {
  if (!IsTrustedOwner(status.st_uid) || (status.st_mode & S_IWOTH) != 0) return true;
  if ((status.st_mode & S_IWGRP) == 0) return false;
  const bool is_own_group = status.st_gid == 0 || status.st_gid == getegid();
  return !is_own_group || HasAccessList(directory);
}

ReplaceResult ReadPlace(const FilePlace& place, const FileRules& rules, FileImage& image) {
  file::Descriptor file;
  FileImage fresh = {.bytes = {}, .status = {}, .exists = true};
  if (ReplaceResult open = OpenPlace(place, O_RDONLY, 0, file, fresh.status); !open.IsDone()) return open;
  if (!S_ISREG(fresh.status.st_mode)) return {ReplaceState::kNotRegular, place.path};
  if (!rules.accept_foreign) {
    if (ReplaceResult checked = CheckOwner(place, fresh.status, FileUse::kRead); !checked.IsDone()) return checked;
  }
  const int error = file::ReadWhole(file.Number(), fresh.bytes, kFileImageBytesMax);
  if (error != 0) return Failed(place.path, error);
  image = std::move(fresh);
  return {};
}

}  // namespace

ReplaceResult ReadFileImage(const std::string& path, FileImage& image, const FileRules& rules) {
  FilePlace place;
  if (ReplaceResult found = FindPlace(path, rules.links, place); !found.IsDone()) return found;
  return ReadPlace(place, rules, image);
}

ReplacedFile::Options ReplacedFile::ForOutput(bool accept_foreign) {
  return {.links = LinkRule::kTrusted,
          .may_be_missing = true,
          .accept_foreign = accept_foreign,
          .is_edit = false,
          .new_mode = ModeThatUmaskLeaves(0666)};
}

ReplacedFile::~ReplacedFile() {
  if (is_in_place_) return;
  const int directory = place_.directory.Number();
  try {
    if (!backup_suffix_.empty()) (void)file::Remove(NameOf(backup_suffix_).c_str(), 0, directory);
    if (copy_.IsOpen() && IsCopyNamed()) (void)file::Remove(NameOf(copy_suffix_).c_str(), 0, directory);
  } catch (const std::bad_alloc&) {
    return;  // if there is no memory for a name, the files stay, as after a kill
  }
}

ReplaceResult ReplacedFile::Begin(const std::string& path, Options options) {
  options_ = options;
  ReplaceResult found = FindPlace(path, options.links, place_);
  if (found.state == ReplaceState::kNotFound && options.may_be_missing)
    return Failed(path, found.error);  // the directory is missing
  if (!found.IsDone()) return found;
  if (ReplaceResult checked = CheckDirectory(); !checked.IsDone()) return checked;
  if (ReplaceResult checked = CheckTarget(); !checked.IsDone()) return checked;
  if (!options.read_only) {
    if (ReplaceResult made = options.is_edit ? LockCopy() : CreateCopy(); !made.IsDone()) return made;
  }
  return options.is_edit ? ReadImage() : ReplaceResult();
}

ReplaceResult ReplacedFile::CheckDirectory() const {
  if (!options_.refuse_shared_directory) return {};
  struct stat status;
  if (const int error = file::StatusOf(place_.directory.Number(), status); error != 0)
    return Failed(place_.path, error);
  if (!MayOthersWrite(place_.directory.Number(), status)) return {};
  return {ReplaceState::kSharedDirectory, place_.path, 0, status.st_uid};
}

ReplaceResult ReplacedFile::CheckTarget() {
  if (place_.is_kernel_link) return {ReplaceState::kNotRegular, place_.path};
  struct stat status;
  const int error = file::StatusOf(place_.name.c_str(), status, AT_SYMLINK_NOFOLLOW, place_.directory.Number());
  if (error == ENOENT) {
    return options_.may_be_missing ? ReplaceResult() : ReplaceResult{ReplaceState::kNotFound, place_.path};
  }
  if (error != 0) return Failed(place_.path, error);
  if (S_ISLNK(status.st_mode)) return {ReplaceState::kChanged, place_.path};
  if (!S_ISREG(status.st_mode)) return {ReplaceState::kNotRegular, place_.path};
  if (!options_.accept_foreign) {
    if (ReplaceResult checked = CheckOwner(place_, status, FileUse::kWrite); !checked.IsDone()) return checked;
  }
  image_.status = status;
  image_.exists = true;
  return {};
}

// At its end, an edit renames or removes the file and then releases the lock. So a lock counts only if the name still
// leads to the locked file.
ReplaceResult ReplacedFile::LockCopy() {
  const std::string name = NameOf(kEditSuffix);
  copy_suffix_ = kEditSuffix;
  const int directory = place_.directory.Number();
  for (int tries = 0; tries < kLockTriesMax; ++tries) {
    file::Descriptor copy = file::Open(name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, kPrivateMode, directory);
    const int open_error = errno;
    if (!copy.IsOpen()) return Failed(CopyName(), open_error);
    struct stat locked;
    int error = CheckOwnFile(copy.Number(), locked);
    if (error == 0) error = file::TryLock(copy.Number());
    if (error == EWOULDBLOCK) return {ReplaceState::kBusy, place_.path};
    if (error != 0) return Failed(CopyName(), error);
    struct stat named;
    const bool is_named = file::StatusOf(name.c_str(), named, AT_SYMLINK_NOFOLLOW, directory) == 0;
    if (!is_named || !file::IsSameFile(locked, named)) continue;
    copy_ = std::move(copy);
    return WriteCopy({});
  }
  return {ReplaceState::kChanged, CopyName()};
}

ReplaceResult ReplacedFile::CreateCopy() {
  copy_ = CreateNext(place_, copy_suffix_, RandomSuffix);
  const int error = errno;
  return copy_.IsOpen() ? ReplaceResult() : Failed(place_.path, error);
}

ReplaceResult ReplacedFile::ReadImage() {
  image_ = {};
  ReplaceResult read = ReadPlace(place_, {.accept_foreign = true}, image_);
  const bool is_missing = read.state == ReplaceState::kNotFound && options_.may_be_missing;
  return is_missing ? ReplaceResult() : read;
}

ReplaceResult ReplacedFile::WriteCopy(std::string_view bytes) {
  if (const int error = file::Truncate(copy_.Number(), 0); error != 0) return Failed(CopyName(), error);
  copy_bytes_ = 0;
  return AppendToCopy(bytes);
}

ReplaceResult ReplacedFile::AppendToCopy(std::string_view bytes) {
  const file::Progress written = file::WriteAt(copy_.Number(), copy_bytes_, bytes);
  copy_bytes_ += static_cast<std::int64_t>(written.bytes);
  return FailedUnlessDone(CopyName(), written.error);
}

int ReplacedFile::SetAttributes() {
  if (image_.exists) return TakeOver(copy_.Number(), image_.status, options_.is_edit);
  return fchmod(copy_.Number(), options_.new_mode) == 0 ? 0 : errno;
}

ReplaceResult ReplacedFile::Commit(bool with_backup) {
  int error = SetAttributes();
  if (error == 0) error = file::Sync(copy_.Number());
  if (error != 0) return Failed(CopyName(), error);
  if (with_backup && image_.exists) {
    if (ReplaceResult backed_up = WriteBackup(); !backed_up.IsDone()) return backed_up;
  }
  if (ReplaceResult unchanged = CheckUnchanged(); !unchanged.IsDone()) return unchanged;
  return RenameCopy();
}

// True if the name of the copy still leads to the copy. A user who may write the directory can give the name to another
// file, which would then be renamed instead of the copy.
bool ReplacedFile::IsCopyNamed() const {
  struct stat own;
  struct stat named;
  const std::string name = NameOf(copy_suffix_);
  return file::StatusOf(copy_.Number(), own) == 0 &&
         file::StatusOf(name.c_str(), named, AT_SYMLINK_NOFOLLOW, place_.directory.Number()) == 0 &&
         file::IsSameFile(own, named);
}

ReplaceResult ReplacedFile::CheckUnchanged() const {
  if (!IsCopyNamed()) return {ReplaceState::kChanged, CopyName()};
  if (!options_.is_edit) return {};
  struct stat now;
  const int error = file::StatusOf(place_.name.c_str(), now, AT_SYMLINK_NOFOLLOW, place_.directory.Number());
  if (error != 0 && error != ENOENT && error != ENOTDIR) return Failed(place_.path, error);
  const bool exists = error == 0;
  const bool is_unchanged = exists == image_.exists && (!exists || file::IsUnchanged(image_.status, now));
  return is_unchanged ? ReplaceResult() : ReplaceResult{ReplaceState::kChanged, place_.path};
}

ReplaceResult ReplacedFile::WriteBackup() {
  const std::time_t now = std::time(nullptr);
  std::tm time = {};
  (void)localtime_r(&now, &time);
  file::Descriptor backup =
      CreateNext(place_, backup_suffix_, [&time](int attempt) { return BackupSuffix(time, attempt); });
  const int open_error = errno;
  if (!backup.IsOpen()) return Failed(file::DirectoryOf(place_.path), open_error);
  backup_path_ = place_.NextTo(backup_suffix_);
  int error = FillBackup(backup, image_);
  if (error == 0) error = file::SyncDirectory(".", place_.directory.Number());
  return FailedUnlessDone(backup_path_, error);
}

// If the sync of the directory fails, a crash can bring back the old file, which is whole as well.
ReplaceResult ReplacedFile::RenameCopy() {
  const int directory = place_.directory.Number();
  int error = file::Rename(directory, NameOf(copy_suffix_).c_str(), directory, place_.name.c_str());
  if (error != 0) return Failed(place_.path, error);
  is_in_place_ = true;
  error = file::SyncDirectory(".", directory);
  return FailedUnlessDone(file::DirectoryOf(place_.path), error);
}

}  // namespace qx
