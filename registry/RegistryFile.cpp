#include "registry/RegistryFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>

namespace qx::registry {

namespace {

constexpr mode_t kFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;

file::Descriptor OpenRegular(const char* path, int flags) {
  file::Descriptor file = file::Open(path, flags, kFileMode);
  struct stat status;
  if (file.IsOpen() && file::StatusOf(file.Number(), status) == 0 && !S_ISREG(status.st_mode)) return {};
  return file;
}

// The path of another name in the directory of `path`.
class Beside {
 public:
  Beside(const char* path, const char* name) {
    const char* slash = std::strrchr(path, '/');
    const int directory_chars = slash != nullptr ? static_cast<int>(slash - path) + 1 : 0;
    (void)std::snprintf(path_, sizeof path_, "%.*s%s", directory_chars, path, name);  // too long: no such file then
  }
  [[nodiscard]] const char* Path() const { return path_; }

 private:
  char path_[PATH_MAX];
};

}  // namespace

file::Descriptor OpenToRead(const char* path) { return OpenRegular(path, O_RDONLY); }

file::Descriptor OpenToWrite(const char* path) { return OpenRegular(path, O_WRONLY | O_CREAT | O_TRUNC); }

long long SizeOf(const file::Descriptor& file) {
  struct stat status;
  return file::StatusOf(file.Number(), status) == 0 ? status.st_size : -1;
}

bool WriteThrough(file::Descriptor& file, std::string_view text) {
  // Before the file gets its name, so that nobody ever meets it with the mode of an unusual umask.
  (void)fchmod(file.Number(), kFileMode);  // a file system without modes stores the registry all the same
  const bool is_stored = !file::Write(file.Number(), text).Failed() && file::Sync(file.Number()) == 0;
  return file.Close() == 0 && is_stored;
}

std::size_t BytesAt(const char* path) {
  struct stat status;
  return file::StatusOf(path, status) == 0 && status.st_size > 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

bool HoldsBytes(const char* path) { return BytesAt(path) > 0; }

ByteSource BytesOf(const file::Descriptor& file) {
  return [number = file.Number()](char* to, std::size_t room) -> ssize_t {
    const file::Progress got = file::ReadSome(number, to, room);
    return got.Failed() ? -1 : static_cast<ssize_t>(got.bytes);
  };
}

void KeepUnread(const char* path) {
  const Beside kept(path, "registry.unread");
  if (link(path, kept.Path()) == 0) return;
  // A file system without hard links: the name moves instead, and like a link it never replaces.
  (void)file::RenameWithoutReplacing(path, kept.Path());
}

void SyncDirectoryOf(const char* path) {
  (void)file::SyncDirectory(Beside(path, ".").Path());  // the names are in place; only a crash now could undo them
}

}  // namespace qx::registry
