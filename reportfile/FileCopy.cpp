#include "reportfile/FileCopy.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

namespace qx::report {

namespace {

// Non-blocking, so that what took a file's place since it was looked at (a FIFO, a device) cannot hold the caller up.
constexpr int kAlways = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
constexpr mode_t kPermissionBits = 0777;
constexpr mode_t kModeOfUnknown = 0600;
constexpr std::size_t kRangeBytes = std::size_t{1} << 22;
constexpr std::size_t kBlockBytes = std::size_t{1} << 14;

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { (void)Close(); }  // whoever has written closes before
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] int Number() const { return number_; }
  // 0, or the error of a write that the system had put off.
  [[nodiscard]] int Close() {
    if (number_ < 0) return 0;
    return close(std::exchange(number_, -1)) == 0 ? 0 : errno;
  }

 private:
  int number_;
};

// Writes the whole block: what is left of a short write is tried again, so that the reason shows. 0 or the error
// number.
int WriteBlock(int to, const char* block, std::size_t size) {
  while (size > 0) {
    const ssize_t put = write(to, block, size);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return errno;
    if (put == 0) return EIO;
    block += put;
    size -= static_cast<std::size_t>(put);
  }
  return 0;
}

int CopyBlocks(int from, int to) {
  char block[kBlockBytes];
  for (;;) {
    const ssize_t got = read(from, block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return got == 0 ? 0 : errno;
    if (const int error = WriteBlock(to, block, static_cast<std::size_t>(got)); error != 0) return error;
  }
}

// Lets the system copy. Where it cannot, or finds nothing in what only looks empty (as files of /proc do), the rest
// goes block by block, which also meets every real error again and names it.
int CopyContents(int from, int to) {
  bool has_copied = false;
  for (;;) {
    const ssize_t copied = copy_file_range(from, nullptr, to, nullptr, kRangeBytes, 0);
    if (copied == 0 && has_copied) return 0;
    if (copied < 0 && errno == EINTR) continue;
    if (copied <= 0) return CopyBlocks(from, to);
    has_copied = true;
  }
}

// The errors of what can be opened for writing: 0 for a regular file.
int KindError(const struct stat& status) {
  if (S_ISREG(status.st_mode)) return 0;
  return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
}

// An open source: what is known about it by its descriptor, or at least by its name.
struct Source {
  int fd;
  bool has_status;  // by its descriptor
  struct stat status;
};

// The target is looked at before it is opened: opening a device can do things, and a FIFO's reader would notice.
int OverwriteFile(const Source& source, const char* target) {
  struct stat status;
  if (stat(target, &status) != 0) return errno;
  if (const int error = KindError(status); error != 0) return error;
  if (IdOf(status) == IdOf(source.status)) return 0;

  Descriptor to(open(target, O_WRONLY | kAlways));
  if (to.Number() < 0 || fstat(to.Number(), &status) != 0) return errno;
  if (const int error = KindError(status); error != 0) return error;
  if (IdOf(status) == IdOf(source.status)) return 0;  // emptying it would lose what is to be copied
  if (ftruncate(to.Number(), 0) != 0) return errno;
  const int error = CopyContents(source.fd, to.Number());
  const int close_error = to.Close();
  return error != 0 ? error : close_error;
}

// EEXIST when there is something at `target` already.
int CreateFile(const Source& source, const char* target) {
  const mode_t mode = source.has_status ? source.status.st_mode & kPermissionBits : kModeOfUnknown;
  Descriptor to(open(target, O_WRONLY | O_CREAT | O_EXCL | O_TRUNC | kAlways, mode));
  if (to.Number() < 0) return errno;
  if (source.has_status) {
    // Ordinary users may not give files away; theirs then stay their own.
    [[maybe_unused]] const int ignored = fchown(to.Number(), source.status.st_uid, source.status.st_gid);
  }
  const int error = CopyContents(source.fd, to.Number());
  const int close_error = to.Close();
  return error != 0 ? error : close_error;
}

}  // namespace

int CopyFile(const char* source, const struct stat& status, const char* target, bool overwrite) {
  if (!S_ISREG(status.st_mode)) return EINVAL;
  const Descriptor from(open(source, O_RDONLY | kAlways));
  if (from.Number() < 0) return errno;

  Source opened = {.fd = from.Number(), .has_status = false, .status = status};
  struct stat current;
  if (fstat(opened.fd, &current) == 0) {
    if (!S_ISREG(current.st_mode)) return EINVAL;
    opened.has_status = true;
    opened.status = current;
  }
  const int error = CreateFile(opened, target);
  return error == EEXIST && overwrite ? OverwriteFile(opened, target) : error;
}

}  // namespace qx::report
