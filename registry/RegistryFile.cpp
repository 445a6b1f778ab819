#include "registry/RegistryFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace qx::registry {

namespace {

constexpr mode_t kFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;

// A lack of descriptors or memory is temporary, and so are many errors of a network file system.
constexpr int kTries = 3;

// A missing file is not retried: most systems have no registry, and should not need three opens.
bool IsMissing(int error) { return error == ENOENT || error == ENOTDIR; }

file::Descriptor OpenWithRetries(const char* path, int flags) {
  for (int tries = 1;; ++tries) {
    file::Descriptor file = file::Open(path, flags);
    const int error = errno;
    if (file.IsOpen() || IsMissing(error) || tries == kTries) return file;
  }
}

// A failed read leaves the position where it is, so the next try reads the same bytes.
file::Progress ReadWithRetries(int number, char* to, std::size_t size) {
  file::Progress got = file::ReadSome(number, to, size);
  for (int tries = 1; got.Failed() && tries < kTries; ++tries) got = file::ReadSome(number, to, size);
  return got;
}

// The path of another name in the directory of `path`.
class NextTo {
 public:
  NextTo(const char* path, const char* name) {
    const char* slash = std::strrchr(path, '/');
    const int directory_chars = slash != nullptr ? static_cast<int>(slash - path) + 1 : 0;
    (void)std::snprintf(path_, sizeof path_, "%.*s%s", directory_chars, path, name);  // too long: no such file
  }
  [[nodiscard]] const char* Path() const { return path_; }

 private:
  char path_[PATH_MAX];
};

}  // namespace

file::Descriptor OpenToRead(const char* path) {
  file::Descriptor file = OpenWithRetries(path, O_RDONLY);
  struct stat status;
  if (file.IsOpen() && file::StatusOf(file.Number(), status) == 0 && !S_ISREG(status.st_mode)) return {};
  return file;
}

file::Descriptor CreateToWrite(const char* path) {
  for (int tries = 1;; ++tries) {
    file::Descriptor file = file::Open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kFileMode);
    const int error = errno;
    if (file.IsOpen() || tries == kTries) return file;
    if (error == EEXIST) (void)file::Remove(path);  // the next open shows whether it was removed
  }
}

long long SizeOf(const file::Descriptor& file) {
  struct stat status;
  return file::StatusOf(file.Number(), status) == 0 ? status.st_size : -1;
}

bool WriteThrough(file::Descriptor& file, std::string_view text) {
  // The mode is set before the file gets its name, so that no process finds the file with the mode of an unusual umask.
  (void)fchmod(file.Number(), kFileMode);  // a file system without modes still stores the registry
  const bool is_stored = !file::Write(file.Number(), text).Failed() && file::Sync(file.Number()) == 0;
  return file.Close() == 0 && is_stored;
}

std::size_t BytesAt(const char* path) {
  struct stat status;
  return file::StatusOf(path, status) == 0 && status.st_size > 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

bool MayHoldBytes(const char* path) {
  struct stat status;
  const int error = file::StatusOf(path, status);
  return error == 0 ? status.st_size > 0 : !IsMissing(error);
}

ByteSource BytesOf(const file::Descriptor& file) {
  return [number = file.Number()](char* to, std::size_t size) -> ssize_t {
    const file::Progress got = ReadWithRetries(number, to, size);
    return got.Failed() ? -1 : static_cast<ssize_t>(got.bytes);
  };
}

void KeepUnread(const char* path) {
  const NextTo kept(path, "registry.unread");
  if (file::Link(path, kept.Path()) == 0) return;
  // On a file system without hard links, the file is renamed instead. This does not replace an existing file either.
  (void)file::RenameWithoutReplacing(path, kept.Path());
}

void SyncDirectoryOf(const char* path) {
  (void)file::SyncDirectory(NextTo(path, ".").Path());  // if it fails, only a crash could undo the renames
}

}  // namespace qx::registry
