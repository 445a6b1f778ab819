#include "debug/OwnFile.h"

#include <sys/xattr.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace qx::debug {

namespace {

// A try fails only if another user exchanges the file meanwhile. If a user does this in every try, no file is opened.
constexpr int kTriesMax = 16;

// 0 for a regular file; otherwise the error number for this kind of file.
int RefusalOf(mode_t mode) noexcept {
  if (S_ISREG(mode)) return 0;
  return S_ISDIR(mode) ? EISDIR : S_ISLNK(mode) ? ELOOP : EINVAL;
}

OwnFile Failure(int error, bool is_refused = false) {
  OwnFile failure;
  failure.error = error;
  failure.is_refused = is_refused;
  return failure;
}

// True if users whom the directory's owner has chosen may be able to read the file: through a group that is not the
// process's (the directory is set-group-id), or through a default access list. Also true if `stat` fails.
bool HasForeignReaders(int descriptor) {
  struct stat status {};
  if (file::StatusOf(descriptor, status) != 0) return true;
  const bool has_list = ::fgetxattr(descriptor, "system.posix_acl_access", nullptr, 0) > 0;
  return (status.st_mode & S_IRGRP) != 0 && (has_list || status.st_gid != ::getegid());
}

OwnFile CreateWith(const char* path, mode_t mode) {
  OwnFile created;
  created.file = file::Open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
  const int error = errno;
  created.error = created.file.IsOpen() ? 0 : error;
  created.is_new = true;
  return created;
}

// A file with foreign readers is created again, without rights for the group. Nothing is written to the first file,
// because such a user may have opened it.
OwnFile Create(const char* path, mode_t mode) {
  OwnFile created = CreateWith(path, mode);
  if (created.error != 0 || (mode & S_IRWXG) == 0 || !HasForeignReaders(created.file.Number())) return created;
  const int error = file::Remove(path);
  return error == 0 ? CreateWith(path, mode & S_IRWXU) : Failure(error);
}

// Opens an existing file. `status` is that of the path before the call, and of the open file after it. A file that is
// not regular is not opened, because opening a device can have an effect on it.
OwnFile OpenExisting(const char* path, struct stat& status) {
  const int refusal = RefusalOf(status.st_mode);
  if (refusal != 0) return Failure(refusal, true);
  OwnFile existing;
  if (!IsOwnFile(status, ::geteuid())) return existing;
  existing.file = file::Open(path, O_RDWR | O_NOFOLLOW);
  const int error = errno;
  if (!existing.file.IsOpen()) return Failure(error);
  if (file::StatusOf(existing.file.Number(), status) != 0) return Failure(EINVAL);
  const bool is_own = S_ISREG(status.st_mode) && IsOwnFile(status, ::geteuid());
  return is_own ? std::move(existing) : OwnFile{};
}

void ReportReplaced(const char* path, const struct stat& status) {
  ::syslog(LOG_WARNING,
           "WARNING: %s is not a file of this process alone (owner=%u, names=%u, mode=%04o) --> created again\n", path,
           status.st_uid, static_cast<unsigned>(status.st_nlink), status.st_mode & 07777U);
}

// True if the path leads to another file now, which the next try opens.
bool IsSwapped(const OwnFile& tried) noexcept {
  if (tried.is_new) return tried.error == EEXIST;
  return !tried.is_refused && (tried.error == ENOENT || tried.error == ELOOP);
}

bool HasSize(const struct stat& status, std::optional<std::uint64_t> size) noexcept {
  return !size.has_value() || static_cast<std::uint64_t>(status.st_size) == *size;
}

}  // namespace

bool IsOwnFile(const struct stat& status, uid_t user) noexcept {
  const bool is_owner = status.st_uid == 0 || status.st_uid == user;
  return is_owner && status.st_nlink == 1 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

OwnFile OpenOwnFile(const char* path, mode_t mode, std::optional<std::uint64_t> size) {
  std::optional<struct stat> refused;  // the last file that was removed because it was not this process's own
  for (int i = 0; i < kTriesMax; ++i) {
    struct stat status {};
    const int status_error = file::StatusOf(path, status, AT_SYMLINK_NOFOLLOW);
    if (status_error != 0 && status_error != ENOENT) return Failure(status_error);
    OwnFile tried = status_error == ENOENT ? Create(path, mode) : OpenExisting(path, status);
    if (IsSwapped(tried)) continue;
    if (tried.is_new && tried.error == 0 && refused.has_value()) ReportReplaced(path, *refused);
    if (tried.is_new || tried.error != 0) {
      tried.is_refused = tried.is_refused || (tried.error != 0 && refused.has_value());
      return tried;
    }
    if (tried.file.IsOpen() && HasSize(status, size)) return tried;
    if (!tried.file.IsOpen()) refused = status;
    const int removal_error = file::Remove(path);
    if (removal_error != 0 && removal_error != ENOENT) return Failure(removal_error, refused.has_value());
  }
  return Failure(EEXIST, true);
}

}  // namespace qx::debug
