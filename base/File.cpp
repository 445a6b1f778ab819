#include "base/File.h"

#include <dirent.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "base/FileCalls.h"

namespace qx::file {

namespace {

constexpr int kAlways = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

// Two texts that together are at most this long are copied into one buffer: this costs less than a vectored write.
constexpr std::size_t kShortWriteBytes = 512;

constexpr std::size_t kBlockBytes = 65536;
constexpr std::size_t kEntriesBytes = 32768;

// Repeats `call` as long as it fails with EINTR.
template <typename Call>
auto Uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// 0 or the error number of a call that returns 0 or -1.
template <typename Call>
int ErrorOf(Call call) {
  return Uninterrupted(call) == 0 ? 0 : errno;
}

// Calls `move(done)`, which moves bytes from `done` on, until all `size` bytes are moved, or a call moves no byte or
// fails.
template <typename Move>
Progress MoveAll(std::size_t size, Move move) {
  Progress progress;
  while (progress.bytes < size) {
    const ssize_t count = move(progress.bytes);
    const int error = errno;
    if (count < 0 && error == EINTR) continue;
    if (count < 0) progress.error = error;
    if (count <= 0) break;
    progress.bytes += static_cast<std::size_t>(count);
  }
  return progress;
}

// The result of one call that returns a count or -1.
template <typename Call>
Progress MoveOnce(Call call) {
  const ssize_t count = Uninterrupted(call);
  return count < 0 ? Progress{.bytes = 0, .error = errno} : Progress{.bytes = static_cast<std::size_t>(count)};
}

// An incomplete write without an error number counts as EIO, because a caller that repeats it might never end.
Progress CheckWritten(Progress progress, std::size_t size) {
  if (progress.bytes < size && progress.error == 0) progress.error = EIO;
  if (progress.error != 0) errno = progress.error;
  return progress;
}

Progress WriteOneAt(int descriptor, std::int64_t offset, std::string_view bytes) {
  const auto move = [&](std::size_t done) {
    return calls::WriteAt(descriptor, bytes.data() + done, bytes.size() - done, offset + static_cast<off_t>(done));
  };
  return CheckWritten(MoveAll(bytes.size(), move), bytes.size());
}

iovec PartOf(std::string_view bytes) { return {const_cast<char*>(bytes.data()), bytes.size()}; }

Progress WriteTwoAt(int descriptor, std::int64_t offset, std::string_view first, std::string_view second) {
  const std::size_t size = first.size() + second.size();
  const auto move = [&](std::size_t done) {
    const std::size_t done_of_first = done < first.size() ? done : first.size();
    const std::size_t done_of_second = done - done_of_first;
    const iovec parts[] = {PartOf(first.substr(done_of_first)), PartOf(second.substr(done_of_second))};
    const bool has_first = done_of_first < first.size();
    return calls::WriteVectorAt(descriptor, has_first ? parts : parts + 1, has_first ? 2 : 1,
                                offset + static_cast<off_t>(done));
  };
  return CheckWritten(MoveAll(size, move), size);
}

bool IsSelfOrParent(std::string_view name) { return name == "." || name == ".."; }

// Appends the names of the directory entries in `bytes`; each entry states its own length. Throws std::bad_alloc.
void AppendNames(const char* bytes, std::size_t size, std::vector<std::string>& names) {
  for (std::size_t at = 0; at < size;) {
    const auto* const entry = reinterpret_cast<const dirent64*>(bytes + at);
    if (!IsSelfOrParent(entry->d_name)) names.emplace_back(entry->d_name);
    at += entry->d_reclen;
  }
}

// Closes the descriptor without a cancellation point: a thread that is cancelled inside a destructor would end the
// program.
void CloseQuietly(int number) {
  const int error = errno;
  int state = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
  (void)calls::Close(number);  // nothing was written, or the caller does not need the result
  pthread_setcancelstate(state, nullptr);
  errno = error;
}

// True, with EINVAL in errno, for an open that would empty the file before it is checked.
bool EmptiesUnchecked(int flags) {
  if ((flags & O_TRUNC) == 0) return false;
  errno = EINVAL;
  return true;
}

// Returns the file if it is a regular file; otherwise a descriptor that is not open, with EINVAL.
Descriptor RequireRegular(Descriptor file) {
  struct stat status;
  if (!file.IsOpen() || StatusOf(file.Number(), status) != 0) return {};
  if (S_ISREG(status.st_mode)) return file;
  errno = EINVAL;
  return {};
}

}  // namespace

Descriptor::~Descriptor() {
  if (IsOpen()) CloseQuietly(number_);
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this == &other) return *this;
  if (IsOpen()) CloseQuietly(number_);
  number_ = other.Release();
  return *this;
}

int Descriptor::Release() noexcept { return std::exchange(number_, -1); }

int Descriptor::Close() {
  const int number = Release();
  return number < 0 || calls::Close(number) == 0 ? 0 : errno;
}

Descriptor Open(const char* path, int flags, mode_t mode, int directory) {
  return Descriptor(Uninterrupted([&] { return calls::OpenAt(directory, path, flags | kAlways, mode); }));
}

Descriptor OpenRegular(const char* path, int flags, mode_t mode, int directory) {
  if (EmptiesUnchecked(flags)) return {};
  return RequireRegular(Open(path, flags, mode, directory));
}

Descriptor OpenRegularWithoutLinks(const char* path, int flags, mode_t mode, int directory) {
  if (EmptiesUnchecked(flags)) return {};
  return RequireRegular(
      Descriptor(Uninterrupted([&] { return calls::OpenWithoutLinksAt(directory, path, flags | kAlways, mode); })));
}

Descriptor OpenDirectory(const char* path, int flags, int directory) {
  return Open(path, flags | O_RDONLY | O_DIRECTORY, 0, directory);
}

Progress Read(int descriptor, void* to, std::size_t size) {
  return MoveAll(size,
                 [&](std::size_t done) { return calls::Read(descriptor, static_cast<char*>(to) + done, size - done); });
}

Progress Write(int descriptor, std::string_view bytes) {
  const auto move = [&](std::size_t done) {
    return calls::Write(descriptor, bytes.data() + done, bytes.size() - done);
  };
  return CheckWritten(MoveAll(bytes.size(), move), bytes.size());
}

Progress ReadAt(int descriptor, std::int64_t offset, void* to, std::size_t size) {
  return MoveAll(size, [&](std::size_t done) {
    return calls::ReadAt(descriptor, static_cast<char*>(to) + done, size - done, offset + static_cast<off_t>(done));
  });
}

Progress WriteAt(int descriptor, std::int64_t offset, std::string_view first, std::string_view second) {
  if (second.empty()) return WriteOneAt(descriptor, offset, first);
  if (first.size() + second.size() > kShortWriteBytes) return WriteTwoAt(descriptor, offset, first, second);
  // Never initialised, whatever the compiler's options: filling the array would take longer than the copies.
  __attribute__((uninitialized)) char both[kShortWriteBytes];
  first.copy(both, first.size());
  second.copy(both + first.size(), second.size());
  return WriteOneAt(descriptor, offset, {both, first.size() + second.size()});
}

Progress ReadSome(int descriptor, void* to, std::size_t size) {
  return MoveOnce([&] { return calls::Read(descriptor, to, size); });
}

Progress ReadSomeAt(int descriptor, std::int64_t offset, void* to, std::size_t size) {
  return MoveOnce([&] { return calls::ReadAt(descriptor, to, size, offset); });
}

Progress WriteOnce(int descriptor, std::string_view bytes) {
  const ssize_t count = calls::Write(descriptor, bytes.data(), bytes.size());
  const int error = errno;
  if (count < 0) return {.bytes = 0, .error = error};
  const bool took_nothing = count == 0 && !bytes.empty();
  return {.bytes = static_cast<std::size_t>(count), .error = took_nothing ? EIO : 0};
}

Progress CopySome(int from, int to, std::size_t size) {
  return MoveOnce([&] { return calls::CopyRange(from, to, size); });
}

Progress ReadLink(int link, char* to, std::size_t size) {
  const ssize_t count = calls::ReadLinkAt(link, "", to, size);
  if (count < 0) return {.bytes = 0, .error = errno};
  const auto bytes = static_cast<std::size_t>(count);
  if (bytes < size) return {.bytes = bytes, .error = 0};
  errno = ENAMETOOLONG;
  return {.bytes = bytes, .error = ENAMETOOLONG};
}

int ReadWhole(int descriptor, std::string& bytes, std::size_t size_max) {
  std::array<char, kBlockBytes> block;
  for (;;) {
    const Progress progress = Read(descriptor, block.data(), block.size());
    try {
      bytes.append(block.data(), progress.bytes);
    } catch (const std::bad_alloc&) {
      return ENOMEM;
    }
    if (progress.Failed()) return progress.error;
    if (bytes.size() > size_max) return EFBIG;
    if (progress.bytes < block.size()) return 0;
  }
}

int Truncate(int descriptor, std::int64_t size) {
  return ErrorOf([&] { return calls::Truncate(descriptor, size); });
}

int StatusOf(int descriptor, struct stat& status) {
  return ErrorOf([&] { return calls::Status(descriptor, &status); });
}

int StatusOf(const char* path, struct stat& status, int flags, int directory) {
  return ErrorOf([&] { return calls::StatusAt(directory, path, &status, flags); });
}

bool IsSameFile(const struct stat& left, const struct stat& right) {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

bool IsUnchanged(const struct stat& before, const struct stat& now) {
  return IsSameFile(before, now) && before.st_size == now.st_size && before.st_mtim.tv_sec == now.st_mtim.tv_sec &&
         before.st_mtim.tv_nsec == now.st_mtim.tv_nsec;
}

int Sync(int descriptor) {
  return ErrorOf([&] { return calls::Sync(descriptor); });
}

int SyncData(int descriptor) {
  return ErrorOf([&] { return calls::SyncData(descriptor); });
}

int SyncFileSystem(int descriptor) {
  return ErrorOf([&] { return calls::SyncFileSystem(descriptor); });
}

void SyncAllFileSystems() { calls::SyncAllFileSystems(); }

int SyncDirectory(const char* path, int directory) {
  const Descriptor opened = OpenDirectory(path, 0, directory);
  return opened.IsOpen() ? Sync(opened.Number()) : errno;
}

std::string DirectoryOf(std::string_view path) {
  const std::size_t last = path.find_last_not_of('/');
  if (last == std::string_view::npos) return path.empty() ? "." : "/";
  const std::size_t slash = path.find_last_of('/', last);
  if (slash == std::string_view::npos) return ".";
  const std::size_t end = path.find_last_not_of('/', slash);
  return end == std::string_view::npos ? "/" : std::string(path.substr(0, end + 1));
}

std::string NameOf(std::string_view path) {
  const std::size_t last = path.find_last_not_of('/');
  if (last == std::string_view::npos) return {};
  const std::size_t slash = path.find_last_of('/', last);
  const std::size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
  return std::string(path.substr(begin, last + 1 - begin));
}

int Rename(const char* from, const char* to) {
  return ErrorOf([&] { return calls::Rename(from, to); });
}

int Rename(int from_directory, const char* from, int to_directory, const char* to) {
  return ErrorOf([&] { return calls::RenameAt(from_directory, from, to_directory, to, 0); });
}

int RenameWithoutReplacing(const char* from, const char* to, int from_directory, int to_directory) {
  const int error = ErrorOf([&] { return calls::RenameAt(from_directory, from, to_directory, to, RENAME_NOREPLACE); });
  if (error != EINVAL && error != ENOSYS) return error;
  // This file system does not support the flag, so a check before the rename has to be enough.
  struct stat status;
  const int status_error = StatusOf(to, status, AT_SYMLINK_NOFOLLOW, to_directory);
  if (status_error == 0) return EEXIST;
  return status_error == ENOENT ? Rename(from_directory, from, to_directory, to) : status_error;
}

int Exchange(const char* left, const char* right) {
  return ErrorOf([&] { return calls::RenameAt(AT_FDCWD, left, AT_FDCWD, right, RENAME_EXCHANGE); });
}

int Link(const char* from, const char* to) {
  return ErrorOf([&] { return calls::Link(from, to); });
}

int MakeDirectory(const char* path, mode_t mode, int directory) {
  return ErrorOf([&] { return calls::MakeDirectoryAt(directory, path, mode); });
}

int ListNames(int directory, std::vector<std::string>& names) {
  alignas(dirent64) std::array<char, kEntriesBytes> entries;
  for (;;) {
    const ssize_t size = Uninterrupted([&] { return calls::ReadEntries(directory, entries.data(), entries.size()); });
    const int error = errno;
    if (size == 0) return 0;
    if (size < 0) return error == ENOENT ? 0 : error;  // a directory that was removed is empty
    try {
      AppendNames(entries.data(), static_cast<std::size_t>(size), names);
    } catch (const std::bad_alloc&) {
      return ENOMEM;
    }
  }
}

int Remove(const char* path, int flags, int directory) {
  return ErrorOf([&] { return calls::UnlinkAt(directory, path, flags); });
}

int TryLock(int descriptor) {
  return ErrorOf([&] { return calls::Lock(descriptor, LOCK_EX | LOCK_NB); });
}

}  // namespace qx::file
