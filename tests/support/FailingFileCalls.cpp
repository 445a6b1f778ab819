#include "tests/support/FailingFileCalls.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "base/FileCalls.h"

namespace qx::test {

namespace {

struct Instruction {
  FileFault fault;
  std::atomic<bool> is_in_force{false};
  std::atomic<int> calls{0};
};

constexpr std::size_t kInstructionsMax = 8;
std::array<Instruction, kInstructionsMax> instructions;

std::function<void()> before_call;
FileCall awaited_call = FileCall::kOpen;
std::string awaited_path;
std::function<void(int)> before_read;
int numbered_reads = 0;
off_t offset_of_read = 0;
off_t unreadable = -1;

bool Includes(FileCall kind, FileCall call) {
  const bool is_write_at = call == FileCall::kWriteAt || call == FileCall::kWriteVectorAt;
  return kind == call || (kind == FileCall::kAnyWriteAt && is_write_at);
}

void RunActionBefore(FileCall call, std::string_view path) {
  if (!before_call || call != awaited_call || !path.ends_with(awaited_path)) return;
  std::exchange(before_call, nullptr)();
}

// The instruction by which this call fails, or null.
const FileFault* FaultOf(FileCall call, const char* path = "") {
  RunActionBefore(call, path);
  const FileFault* found = nullptr;
  for (Instruction& instruction : instructions) {
    if (!instruction.is_in_force || !Includes(instruction.fault.call, call)) continue;
    if (!std::string_view(path).ends_with(instruction.fault.path)) continue;
    const int number = ++instruction.calls;
    const int first = instruction.fault.nth;
    const bool applies = number >= first && number - first < instruction.fault.times;
    if (applies && found == nullptr) found = &instruction.fault;
  }
  return found;
}

int Fail(const FileFault& fault) {
  errno = fault.error;
  return -1;
}

// Runs `real(size)`, unless an instruction requires a failure or fewer bytes.
template <typename Real>
ssize_t Move(FileCall call, std::size_t size, Real real) {
  const FileFault* const fault = FaultOf(call);
  if (fault == nullptr) return real(size);
  if (fault->error != 0) return Fail(*fault);
  return fault->bytes == 0 ? 0 : real(std::min(size, fault->bytes));
}

void RunActionBeforeRead(off_t offset) {
  if (!before_read) return;
  offset_of_read = offset;
  const auto action = std::exchange(before_read, nullptr);
  action(++numbered_reads);
  before_read = action;
}

// Reads like pread, up to the unreadable byte.
ssize_t ReadReadable(int descriptor, void* to, std::size_t size, off_t offset) {
  if (unreadable < offset || unreadable >= offset + static_cast<off_t>(size)) {
    return ::pread(descriptor, to, size, offset);
  }
  if (unreadable > offset) return ::pread(descriptor, to, static_cast<std::size_t>(unreadable - offset), offset);
  errno = EIO;
  return -1;
}

// Writes the first `size` bytes of the parts with pwritev.
ssize_t WriteFirst(int descriptor, std::span<const iovec> parts, std::size_t size, off_t offset) {
  std::vector<iovec> cut;
  for (const iovec& part : parts) {
    cut.push_back({part.iov_base, std::min(part.iov_len, size)});
    size -= cut.back().iov_len;
  }
  return ::pwritev(descriptor, cut.data(), static_cast<int>(cut.size()), offset);
}

}  // namespace

FailingCall::FailingCall(FileFault fault) : index_(0), nth_(fault.nth) {
  while (index_ < kInstructionsMax && instructions[index_].is_in_force) ++index_;
  if (index_ == kInstructionsMax) throw std::logic_error("too many instructions");
  instructions[index_].fault = std::move(fault);
  instructions[index_].calls = 0;
  instructions[index_].is_in_force = true;
}

FailingCall::~FailingCall() { instructions[index_].is_in_force = false; }

int FailingCall::Calls() const { return instructions[index_].calls; }

FullDisk::FullDisk(int nth, std::size_t bytes, int failing)
    : cut_({.call = FileCall::kAnyWriteAt, .nth = nth, .bytes = bytes}),
      rest_({.call = FileCall::kAnyWriteAt, .nth = nth + 1, .times = failing, .error = ENOSPC}) {}

BeforeTheCall::BeforeTheCall(FileCall call, std::string path, std::function<void()> action) {
  awaited_call = call;
  awaited_path = std::move(path);
  before_call = std::move(action);
}
BeforeTheCall::~BeforeTheCall() { before_call = nullptr; }

BeforeEachRead::BeforeEachRead(std::function<void(int read)> action) {
  numbered_reads = 0;
  before_read = std::move(action);
}
BeforeEachRead::~BeforeEachRead() { before_read = nullptr; }
int BeforeEachRead::Reads() const { return numbered_reads; }
off_t BeforeEachRead::Offset() const { return offset_of_read; }

UnreadableByte::UnreadableByte(off_t offset) { unreadable = offset; }
UnreadableByte::~UnreadableByte() { unreadable = -1; }

}  // namespace qx::test

namespace qx::calls {

using test::Fail;
using test::FaultOf;
using test::FileCall;
using test::Move;
using test::ReadReadable;
using test::RunActionBeforeRead;
using test::WriteFirst;

int OpenAt(int directory, const char* path, int flags, mode_t mode) {
  const auto* const fault = FaultOf(FileCall::kOpen, path);
  return fault != nullptr ? Fail(*fault) : ::openat(directory, path, flags, mode);
}

int OpenWithoutLinksAt(int directory, const char* path, int flags, mode_t mode) {
  const auto* const fault = FaultOf(FileCall::kOpen, path);
  if (fault != nullptr) return Fail(*fault);
  open_how how = {};
  how.flags = static_cast<unsigned>(flags);
  how.mode = (flags & O_CREAT) != 0 ? mode : 0;
  how.resolve = RESOLVE_NO_SYMLINKS;
  return static_cast<int>(::syscall(SYS_openat2, directory, path, &how, sizeof how));
}

ssize_t ReadLinkAt(int directory, const char* path, char* to, std::size_t size) {
  return ::readlinkat(directory, path, to, size);
}

// Closes the descriptor even if the call fails, as the system does.
int Close(int descriptor) {
  const auto* const fault = FaultOf(FileCall::kClose);
  const int result = ::close(descriptor);
  return fault != nullptr ? Fail(*fault) : result;
}

ssize_t Read(int descriptor, void* to, std::size_t size) {
  return Move(FileCall::kRead, size, [=](std::size_t some) { return ::read(descriptor, to, some); });
}
ssize_t ReadAt(int descriptor, void* to, std::size_t size, off_t offset) {
  RunActionBeforeRead(offset);
  return Move(FileCall::kReadAt, size, [=](std::size_t some) { return ReadReadable(descriptor, to, some, offset); });
}
ssize_t Write(int descriptor, const void* from, std::size_t size) {
  return Move(FileCall::kWrite, size, [=](std::size_t some) { return ::write(descriptor, from, some); });
}
ssize_t WriteAt(int descriptor, const void* from, std::size_t size, off_t offset) {
  return Move(FileCall::kWriteAt, size, [=](std::size_t some) { return ::pwrite(descriptor, from, some, offset); });
}

ssize_t WriteVectorAt(int descriptor, const iovec* parts, int count, off_t offset) {
  const std::span all(parts, static_cast<std::size_t>(count));
  std::size_t size = 0;
  for (const iovec& part : all) size += part.iov_len;
  return Move(FileCall::kWriteVectorAt, size,
              [=](std::size_t some) { return WriteFirst(descriptor, all, some, offset); });
}
ssize_t CopyRange(int from, int to, std::size_t size) {
  return Move(FileCall::kCopyRange, size,
              [=](std::size_t some) { return ::copy_file_range(from, nullptr, to, nullptr, some, 0); });
}

int Truncate(int descriptor, off_t size) {
  const auto* const fault = FaultOf(FileCall::kTruncate);
  return fault != nullptr ? Fail(*fault) : ::ftruncate(descriptor, size);
}
int Status(int descriptor, struct stat* status) {
  const auto* const fault = FaultOf(FileCall::kStatus);
  return fault != nullptr ? Fail(*fault) : ::fstat(descriptor, status);
}
int StatusAt(int directory, const char* path, struct stat* status, int flags) {
  const auto* const fault = FaultOf(FileCall::kStatusAt, path);
  return fault != nullptr ? Fail(*fault) : ::fstatat(directory, path, status, flags);
}

int Sync(int descriptor) {
  const auto* const fault = FaultOf(FileCall::kSync);
  return fault != nullptr ? Fail(*fault) : ::fsync(descriptor);
}
int SyncData(int descriptor) {
  const auto* const fault = FaultOf(FileCall::kSyncData);
  return fault != nullptr ? Fail(*fault) : ::fdatasync(descriptor);
}
int SyncFileSystem(int descriptor) {
  const auto* const fault = FaultOf(FileCall::kSyncFileSystem);
  return fault != nullptr ? Fail(*fault) : ::syncfs(descriptor);
}
void SyncAllFileSystems() { ::sync(); }

int Rename(const char* from, const char* to) {
  const auto* const fault = FaultOf(FileCall::kRename, from);
  return fault != nullptr ? Fail(*fault) : ::rename(from, to);
}
int RenameAt(int from_directory, const char* from, int to_directory, const char* to, unsigned flags) {
  const auto* const fault = FaultOf(FileCall::kRename, from);
  return fault != nullptr ? Fail(*fault) : ::renameat2(from_directory, from, to_directory, to, flags);
}
int Link(const char* from, const char* to) {
  const auto* const fault = FaultOf(FileCall::kLink, from);
  return fault != nullptr ? Fail(*fault) : ::link(from, to);
}
int MakeDirectoryAt(int directory, const char* path, mode_t mode) {
  const auto* const fault = FaultOf(FileCall::kMakeDirectory, path);
  return fault != nullptr ? Fail(*fault) : ::mkdirat(directory, path, mode);
}
ssize_t ReadEntries(int directory, void* to, std::size_t size) {
  const auto* const fault = FaultOf(FileCall::kReadEntries);
  return fault != nullptr ? Fail(*fault) : ::getdents64(directory, to, size);
}
int UnlinkAt(int directory, const char* path, int flags) {
  const auto* const fault = FaultOf(FileCall::kRemove, path);
  return fault != nullptr ? Fail(*fault) : ::unlinkat(directory, path, flags);
}
int Lock(int descriptor, int operation) {
  const auto* const fault = FaultOf(FileCall::kLock);
  return fault != nullptr ? Fail(*fault) : ::flock(descriptor, operation);
}

}  // namespace qx::calls
