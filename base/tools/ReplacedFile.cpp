#include "base/tools/ReplacedFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <utility>

namespace qx {

namespace {

constexpr mode_t kNewFileMode = 0644;
constexpr mode_t kPrivateMode = 0600;
constexpr mode_t kModeMask = 07777;

ReplaceResult Failed(const std::string& file, int error) { return {ReplaceState::kFailed, file, error}; }

// "a/b" => "a"   "/a" => "/"   "a" => "."
std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// 0 or the error number.
int WriteWhole(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

int ReadWhole(int descriptor, std::string& bytes) {
  std::array<char, 65536> block;
  for (;;) {
    const ssize_t got = read(descriptor, block.data(), block.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) return 0;
    try {
      bytes.append(block.data(), static_cast<std::size_t>(got));
    } catch (const std::bad_alloc&) {
      return ENOMEM;  // so that the caller closes the file
    }
    if (bytes.size() > kFileImageBytesMax) return EFBIG;
  }
}

bool IsSameFile(const struct stat& left, const struct stat& right) {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

bool IsUnchanged(const struct stat& before, const struct stat& now) {
  return IsSameFile(before, now) && before.st_size == now.st_size && before.st_mtim.tv_sec == now.st_mtim.tv_sec &&
         before.st_mtim.tv_nsec == now.st_mtim.tv_nsec;
}

// The owner first: a change of owner takes set-user-id bits away.
int TakeOver(int descriptor, const struct stat& status) {
  struct stat own;
  if (fstat(descriptor, &own) != 0) return errno;
  const bool has_owner = own.st_uid == status.st_uid && own.st_gid == status.st_gid;
  if (!has_owner && fchown(descriptor, status.st_uid, status.st_gid) != 0) return errno;
  return fchmod(descriptor, status.st_mode & kModeMask) == 0 ? 0 : errno;
}

int SyncDirectory(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  const int error = fsync(descriptor) == 0 ? 0 : errno;
  (void)close(descriptor);  // nothing was written through it
  return error;
}

// "registry" => "registry.20261121-101500.bak"; the second one of that second is "registry.20261121-101500-2.bak".
std::string BackupName(const std::string& path, const std::tm& time, int attempt) {
  std::array<char, 64> name;
  (void)std::strftime(name.data(), name.size(), ".%Y%m%d-%H%M%S", &time);
  const std::string number = attempt > 1 ? "-" + std::to_string(attempt) : "";
  return path + name.data() + number + ".bak";
}

// Creates the backup under a name that nothing has yet; -1 with errno.
int CreateBackup(const std::string& path, std::string& backup_path) {
  constexpr int kAttemptsMax = 1000;
  const std::time_t now = std::time(nullptr);
  std::tm time = {};
  (void)localtime_r(&now, &time);
  int descriptor = -1;
  for (int attempt = 1; attempt <= kAttemptsMax; ++attempt) {
    std::string name = BackupName(path, time, attempt);
    descriptor = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateMode);
    if (descriptor >= 0) backup_path = std::move(name);  // without memory, which could be missing
    if (descriptor >= 0 || errno != EEXIST) return descriptor;
  }
  return descriptor;
}

// 0 or the error number; the descriptor is closed either way.
int FillBackup(int descriptor, const FileImage& image) {
  int error = WriteWhole(descriptor, image.bytes);
  if (error == 0) error = TakeOver(descriptor, image.status);
  const struct timespec times[] = {image.status.st_atim, image.status.st_mtim};
  if (error == 0 && futimens(descriptor, times) != 0) error = errno;
  if (error == 0 && fsync(descriptor) != 0) error = errno;
  if (close(descriptor) != 0 && error == 0) error = errno;
  return error;
}

// The file of that name may be a leftover of an edit that was killed: then it is ours to take. Anything else is not.
int CheckOwnFile(int descriptor, struct stat& status) {
  if (fstat(descriptor, &status) != 0) return errno;
  const bool is_ours = S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink <= 1;
  return is_ours ? 0 : EEXIST;
}

}  // namespace

ReplaceResult ReadFileImage(const std::string& path, FileImage& image) {
  // Non-blocking, because a FIFO would otherwise wait for its other end.
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (descriptor < 0) {
    const int error = errno;
    return error == ENOENT || error == ENOTDIR ? ReplaceResult{ReplaceState::kNotFound, path} : Failed(path, error);
  }
  FileImage fresh = {.bytes = {}, .status = {}, .exists = true};
  int error = fstat(descriptor, &fresh.status) == 0 ? 0 : errno;
  const bool is_regular = error == 0 && S_ISREG(fresh.status.st_mode);
  if (is_regular) error = ReadWhole(descriptor, fresh.bytes);
  (void)close(descriptor);  // read only, nothing can be lost
  if (error != 0) return Failed(path, error);
  if (!is_regular) return {ReplaceState::kNotRegular, path};
  image = std::move(fresh);
  return {};
}

ReplacedFile::~ReplacedFile() {
  if (!is_in_place_ && !backup_path_.empty()) (void)unlink(backup_path_.c_str());
  if (!is_in_place_ && copy_ >= 0) (void)unlink(copy_path_.c_str());
  if (copy_ >= 0) (void)close(copy_);  // gives the lock back; what it holds was synced or is of no use
}

ReplaceResult ReplacedFile::Begin(const std::string& path, Options options) {
  if (ReplaceResult found = FindTarget(path, options); !found.IsDone()) return found;
  if (ReplaceResult locked = options.only_look ? ReplaceResult() : LockCopy(); !locked.IsDone()) return locked;
  ReplaceResult read = ReadFileImage(path_, image_);
  const bool is_missing = read.state == ReplaceState::kNotFound && options.may_be_missing;
  return is_missing ? ReplaceResult() : read;
}

ReplaceResult ReplacedFile::FindTarget(const std::string& path, Options options) {
  path_ = path;
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) {
    const int error = errno;
    if (error != ENOENT && error != ENOTDIR) return Failed(path, error);
    return options.may_be_missing ? ReplaceResult() : ReplaceResult{ReplaceState::kNotFound, path};
  }
  if (S_ISREG(status.st_mode)) return {};
  if (!S_ISLNK(status.st_mode)) return {ReplaceState::kNotRegular, path};
  if (!options.follow_link) return {ReplaceState::kLink, path};
  char* const resolved = realpath(path.c_str(), nullptr);
  if (resolved == nullptr) return Failed(path, errno);
  path_ = resolved;
  std::free(resolved);
  return {};
}

// An edit that ends gives the name away, by a rename or a removal, and only then the lock. So a lock counts only while
// the name still leads to the file that was locked.
ReplaceResult ReplacedFile::LockCopy() {
  copy_path_ = path_ + ".edit";
  for (;;) {
    const int descriptor =
        open(copy_path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, kPrivateMode);
    if (descriptor < 0) return Failed(copy_path_, errno);
    struct stat locked;
    int error = CheckOwnFile(descriptor, locked);
    if (error == 0 && flock(descriptor, LOCK_EX | LOCK_NB) != 0) error = errno;
    struct stat named;
    const bool is_named = lstat(copy_path_.c_str(), &named) == 0;
    if (error == 0 && is_named && IsSameFile(locked, named)) {
      copy_ = descriptor;
      return WriteCopy({});
    }
    (void)close(descriptor);  // nothing was written through it
    if (error == EWOULDBLOCK) return {ReplaceState::kBusy, path_};
    if (error != 0) return Failed(copy_path_, error);
  }
}

ReplaceResult ReplacedFile::WriteCopy(std::string_view bytes) {
  int error = ftruncate(copy_, 0) == 0 && lseek(copy_, 0, SEEK_SET) == 0 ? 0 : errno;
  if (error == 0) error = WriteWhole(copy_, bytes);
  return error == 0 ? ReplaceResult() : Failed(copy_path_, error);
}

ReplaceResult ReplacedFile::Commit(bool with_backup) {
  int error = 0;
  if (image_.exists) {
    error = TakeOver(copy_, image_.status);
  } else if (fchmod(copy_, kNewFileMode) != 0) {
    error = errno;
  }
  if (error == 0 && fsync(copy_) != 0) error = errno;
  if (error != 0) return Failed(copy_path_, error);
  if (with_backup && image_.exists) {
    if (ReplaceResult backed_up = WriteBackup(); !backed_up.IsDone()) return backed_up;
  }
  if (ReplaceResult unchanged = CheckUnchanged(); !unchanged.IsDone()) return unchanged;
  return PutInPlace();
}

ReplaceResult ReplacedFile::CheckUnchanged() const {
  struct stat now;
  const bool exists = lstat(path_.c_str(), &now) == 0;
  if (!exists && errno != ENOENT && errno != ENOTDIR) return Failed(path_, errno);
  if (exists != image_.exists || (exists && !IsUnchanged(image_.status, now))) return {ReplaceState::kChanged, path_};
  return {};
}

ReplaceResult ReplacedFile::WriteBackup() {
  const int descriptor = CreateBackup(path_, backup_path_);
  if (descriptor < 0) {
    const int open_error = errno;
    return Failed(DirectoryOf(path_), open_error);
  }
  int error = FillBackup(descriptor, image_);
  if (error == 0) error = SyncDirectory(DirectoryOf(path_));
  return error == 0 ? ReplaceResult() : Failed(backup_path_, error);
}

// Without a sync of the directory a crash could bring the old file back, which is one of the two that may be there.
ReplaceResult ReplacedFile::PutInPlace() {
  int error = rename(copy_path_.c_str(), path_.c_str()) == 0 ? 0 : errno;
  if (error != 0) return Failed(path_, error);
  is_in_place_ = true;
  error = SyncDirectory(DirectoryOf(path_));
  return error == 0 ? ReplaceResult() : Failed(DirectoryOf(path_), error);
}

}  // namespace qx
