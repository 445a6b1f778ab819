#include "reportfile/StoreIo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

namespace qx::report {

namespace {

constexpr mode_t kStoreFileMode = 0644;

// Records this short are put together with what goes behind them: copying them costs less than a vectored write.
constexpr std::size_t kShortWriteBytes = 512;

int OpenFlags(OpenMode mode) {
  // Non-blocking, so that a FIFO or a device in the report directory cannot hold the caller up before it is looked at.
  // The file is emptied only after that look, hence no O_TRUNC.
  constexpr int kAlways = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  switch (mode) {
    case OpenMode::kRead:
      return kAlways | O_RDONLY;
    case OpenMode::kUpdate:
      return kAlways | O_RDWR;
    case OpenMode::kCreate:
      return kAlways | O_RDWR | O_CREAT;
  }
  return kAlways;
}

// What open itself says about directories, sockets and devices without a driver.
bool MeansNotARegularFile(int error) { return error == EISDIR || error == ENXIO || error == ENODEV; }

bool IsRegularFile(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) return false;
  if (S_ISREG(status.st_mode)) return true;
  errno = EINVAL;
  return false;
}

bool EmptyFile(int fd) {
  if (ftruncate(fd, 0) != 0) return false;
  (void)fchmod(fd, kStoreFileMode);  // the file of another owner keeps its mode; it is open and empty all the same
  return true;
}

std::FILE* CloseKeepingErrno(int fd) {
  const int error = errno;
  close(fd);
  errno = error;
  return nullptr;
}

// Drops `count` written bytes from the front of the parts; returns the first part that has bytes left.
iovec* Advance(iovec* part, const iovec* end, std::size_t count) {
  while (part != end && count >= part->iov_len) count -= (part++)->iov_len;
  if (part != end) {
    part->iov_base = static_cast<char*>(part->iov_base) + count;
    part->iov_len -= count;
  }
  return part;
}

iovec PartOf(std::string_view bytes) { return {const_cast<char*>(bytes.data()), bytes.size()}; }

std::size_t WriteBytes(int fd, std::int64_t offset, std::string_view bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t put = pwrite(fd, bytes.data() + done, bytes.size() - done, offset + static_cast<off_t>(done));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) break;
    done += static_cast<std::size_t>(put);
  }
  return done;
}

std::size_t WriteVector(int fd, std::int64_t offset, std::string_view first, std::string_view second) {
  iovec parts[] = {PartOf(first), PartOf(second)};
  const iovec* const end = parts + 2;
  iovec* part = Advance(parts, end, 0);
  std::size_t done = 0;
  while (part != end) {
    const ssize_t put = pwritev(fd, part, static_cast<int>(end - part), offset + static_cast<off_t>(done));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) break;
    done += static_cast<std::size_t>(put);
    part = Advance(part, end, static_cast<std::size_t>(put));
  }
  return done;
}

}  // namespace

std::FILE* OpenRegularFile(const std::string& path, OpenMode mode) {
  const int fd = open(path.c_str(), OpenFlags(mode), kStoreFileMode);
  if (fd < 0) {
    if (MeansNotARegularFile(errno)) errno = EINVAL;
    return nullptr;
  }
  if (!IsRegularFile(fd)) return CloseKeepingErrno(fd);
  if (mode == OpenMode::kCreate && !EmptyFile(fd)) return CloseKeepingErrno(fd);

  std::FILE* const file = fdopen(fd, mode == OpenMode::kRead ? "rb" : "r+b");
  return file != nullptr ? file : CloseKeepingErrno(fd);
}

std::size_t ReadAt(std::FILE* file, std::int64_t offset, void* to, std::size_t size) {
  const int fd = fileno(file);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = pread(fd, static_cast<char*>(to) + done, size - done, offset + static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

std::size_t WriteAt(std::FILE* file, std::int64_t offset, std::string_view first, std::string_view second) {
  const int fd = fileno(file);
  if (second.empty()) return WriteBytes(fd, offset, first);
  if (first.size() + second.size() > kShortWriteBytes) return WriteVector(fd, offset, first, second);
  char both[kShortWriteBytes];
  first.copy(both, first.size());
  second.copy(both + first.size(), second.size());
  return WriteBytes(fd, offset, {both, first.size() + second.size()});
}

}  // namespace qx::report
