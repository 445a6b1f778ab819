#include "registry/RegistryFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <utility>

namespace qx::registry {

namespace {

constexpr mode_t kFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;

// Non-blocking, because opening a FIFO would otherwise wait for its other end; regular files do not notice.
Descriptor OpenRegular(const char* path, int flags) {
  Descriptor file(open(path, flags | O_CLOEXEC | O_NONBLOCK, kFileMode));
  struct stat status;
  if (file.IsOpen() && fstat(file.Number(), &status) == 0 && !S_ISREG(status.st_mode)) return Descriptor();
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

bool WriteAll(int number, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(number, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

bool Descriptor::Close() {
  const int number = std::exchange(number_, -1);
  return number < 0 || close(number) == 0;
}

Descriptor OpenToRead(const char* path) { return OpenRegular(path, O_RDONLY); }

Descriptor OpenToWrite(const char* path) { return OpenRegular(path, O_WRONLY | O_CREAT | O_TRUNC); }

long long SizeOf(const Descriptor& file) {
  struct stat status;
  return fstat(file.Number(), &status) == 0 ? status.st_size : -1;
}

bool WriteThrough(Descriptor& file, std::string_view text) {
  // Before the file gets its name, so that nobody ever meets it with the mode of an unusual umask.
  (void)fchmod(file.Number(), kFileMode);  // a file system without modes stores the registry all the same
  const bool is_stored = WriteAll(file.Number(), text) && fsync(file.Number()) == 0;
  return file.Close() && is_stored;
}

std::size_t BytesAt(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 && status.st_size > 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

bool HoldsBytes(const char* path) { return BytesAt(path) > 0; }

ByteSource BytesOf(const Descriptor& file) {
  return [number = file.Number()](char* to, std::size_t room) {
    ssize_t got;
    do {
      got = read(number, to, room);
    } while (got < 0 && errno == EINTR);
    return got;
  };
}

void KeepUnread(const char* path) {
  const Beside kept(path, "registry.unread");
  if (link(path, kept.Path()) == 0) return;
  // A file system without hard links: the name moves instead, and like a link it never replaces.
  (void)renameat2(AT_FDCWD, path, AT_FDCWD, kept.Path(), RENAME_NOREPLACE);
}

void SyncDirectoryOf(const char* path) {
  const Descriptor directory(open(Beside(path, ".").Path(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.IsOpen()) (void)fsync(directory.Number());  // the names are in place; only a crash now could undo them
}

}  // namespace qx::registry
