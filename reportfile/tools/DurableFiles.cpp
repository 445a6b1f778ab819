#include "reportfile/tools/DurableFiles.h"

#include <fcntl.h>
#include <ftw.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "reportfile/StoreIo.h"
#include "reportfile/tools/ByteSource.h"

namespace qx::report {

namespace {

constexpr std::size_t kBlockBytes = std::size_t{1} << 20;

// A descriptor that is closed at the end of the scope.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd), error_(fd >= 0 ? 0 : errno) {}
  ~Descriptor() {
    if (fd_ >= 0) (void)close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Get() const { return fd_; }
  int Error() const { return error_; }
  // The error number of closing: a full disk may show only there.
  int Close() {
    const int fd = fd_;
    fd_ = -1;
    return close(fd) == 0 ? 0 : errno;
  }

 private:
  int fd_;
  int error_;
};

// 0 or the error number of the write that failed.
int WriteWhole(int fd, std::int64_t offset, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t put = pwrite(fd, bytes, size, offset);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return put < 0 ? errno : ENOSPC;
    bytes += put;
    offset += put;
    size -= static_cast<std::size_t>(put);
  }
  return 0;
}

}  // namespace

std::string ParentOf(const std::string& path) {
  const std::size_t last = path.find_last_not_of('/');
  const std::size_t slash = last == std::string::npos ? last : path.find_last_of('/', last);
  if (slash == std::string::npos) return path.starts_with('/') ? "/" : ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
  const std::size_t last = path.find_last_not_of('/');
  if (last == std::string::npos) return {};
  const std::size_t slash = path.find_last_of('/', last);
  const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(begin, last + 1 - begin);
}

int SyncPath(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.Error() != 0) return file.Error();
  return fsync(file.Get()) == 0 ? 0 : errno;
}

int RenameWithoutReplacing(const std::string& from, const std::string& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // A file system without that flag: a look before the rename is the best there is.
  if (faccessat(AT_FDCWD, to.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
  return rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

NewFile::NewFile(std::string path)
    : path_(std::move(path)),
      fd_(open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR)),
      error_(fd_ >= 0 ? 0 : errno) {}

NewFile::~NewFile() {
  const bool is_made = fd_ >= 0 || is_finished_;
  if (fd_ >= 0) (void)close(fd_);  // nobody is to see what it holds
  if (is_made && !(is_finished_ && error_ == 0)) (void)unlink(path_.c_str());
}

void NewFile::CopyFrom(ByteSource& source) {
  const auto block = std::make_unique_for_overwrite<char[]>(kBlockBytes);
  Shorten(0);
  for (std::int64_t at = 0; error_ == 0;) {
    const std::size_t got = source.ReadAt(at, block.get(), kBlockBytes);
    if (got == 0) return;
    error_ = WriteWhole(fd_, at, block.get(), got);
    at += static_cast<std::int64_t>(got);
  }
}

void NewFile::WriteAt(std::int64_t offset, std::string_view bytes) {
  if (error_ == 0) error_ = WriteWhole(fd_, offset, bytes.data(), bytes.size());
}

std::size_t NewFile::ReadAt(std::int64_t offset, void* to, std::size_t size) const {
  if (error_ != 0) return 0;
  const ssize_t got = pread(fd_, to, size, offset);
  return got > 0 ? static_cast<std::size_t>(got) : 0;
}

void NewFile::Shorten(std::int64_t size) {
  struct stat status = {};
  if (error_ != 0) return;
  const bool is_done = fstat(fd_, &status) == 0 && (status.st_size <= size || ftruncate(fd_, size) == 0);
  if (!is_done) error_ = errno;
}

int NewFile::Finish(const struct stat& status) {
  TakeOver(status);
  if (error_ == 0 && fsync(fd_) != 0) error_ = errno;
  if (error_ != 0) return error_;
  is_finished_ = true;
  if (close(fd_) != 0) error_ = errno;  // a full disk may show only here
  fd_ = -1;
  return error_;
}

// Owner first, because a change of owner may clear permission bits.
void NewFile::TakeOver(const struct stat& status) {
  if (error_ != 0) return;
  if (fchown(fd_, status.st_uid, status.st_gid) != 0) {
    (void)!fchown(fd_, static_cast<uid_t>(-1), status.st_gid);  // an ordinary user keeps what he may
  }
  const timespec times[2] = {status.st_atim, status.st_mtim};
  const bool is_done = fchmod(fd_, status.st_mode & 0777) == 0 && futimens(fd_, times) == 0;
  if (!is_done) error_ = errno;
}

CopiedFile CopyRegularFile(const std::string& from, const std::string& to) {
  CopiedFile copy;
  FileBytes source(OpenRegularFile(from, OpenMode::kRead));
  if (!source.IsOpen() || fstat(source.Number(), &copy.status) != 0) {
    copy.error = errno;
    copy.is_source_error = true;
    return copy;
  }
  NewFile target(to);
  target.CopyFrom(source);
  copy.is_source_error = source.Error() != 0;
  copy.error = copy.is_source_error ? source.Error() : target.Finish(copy.status);
  return copy;
}

namespace {

constexpr int kOpenDirectoriesMax = 16;

using Visitor = int(const char*, const struct stat*, int, struct FTW*);

int RemoveOrStop(const char* path, const struct stat* /*status*/, int /*kind*/, struct FTW* /*place*/) {
  return std::remove(path) == 0 ? 0 : errno;
}

int RemoveAndGoOn(const char* path, const struct stat* /*status*/, int /*kind*/, struct FTW* /*place*/) {
  (void)std::remove(path);
  return 0;
}

// The language's own walk through a directory ends the program when memory has run out.
int WalkFromLeaves(const std::string& path, Visitor* visit) {
  return nftw(path.c_str(), visit, kOpenDirectoriesMax, FTW_DEPTH | FTW_PHYS);
}

}  // namespace

int RemoveTree(const std::string& path) {
  const int error = WalkFromLeaves(path, RemoveOrStop);
  return error < 0 ? errno : error;
}

PrivateDirectory::PrivateDirectory(const std::string& prefix) : path_(prefix + "XXXXXX") {
  is_ours_ = mkdtemp(path_.data()) != nullptr;
  if (!is_ours_) error_ = errno;
}

// What cannot be removed stays, under a name that nobody takes for the real thing.
PrivateDirectory::~PrivateDirectory() {
  if (is_ours_) (void)WalkFromLeaves(path_, RemoveAndGoOn);
}

}  // namespace qx::report
