#include "tests/reportfile/FaultyCalls.h"

#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <utility>

namespace {

using qx::test::CallFault;

struct Faults {
  CallFault fault;
  std::atomic<int> calls{0};

  bool Meets(int call) const {
    return fault.kind != CallFault::Kind::kNone && call >= fault.nth && call - fault.nth <= fault.more_failing;
  }
};

Faults writes;
Faults reads;

std::function<void(int)> before_read;
int hooked_reads = 0;
off_t hooked_offset = 0;
off_t bad_byte = -1;

void RunHook(off_t offset) {
  if (!before_read) return;
  hooked_offset = offset;
  const auto action = std::exchange(before_read, nullptr);
  action(++hooked_reads);
  before_read = action;
}

// The number of bytes before the unreadable byte, at most `size`; 0 at that byte.
std::size_t Readable(off_t offset, std::size_t size) {
  const auto end = static_cast<off_t>(offset + static_cast<off_t>(size));
  return bad_byte >= offset && bad_byte < end ? static_cast<std::size_t>(bad_byte - offset) : size;
}

// What call number `call` returns instead of asking the system for `requested` bytes: a number of bytes, or -1.
ssize_t Outcome(const Faults& faults, int call, std::size_t requested) {
  if (!faults.Meets(call)) return static_cast<ssize_t>(requested);
  const bool is_first = call == faults.fault.nth;
  if (is_first && faults.fault.kind == CallFault::Kind::kTakesNothing) return 0;
  if (is_first && faults.fault.kind == CallFault::Kind::kTakesSome) {
    return static_cast<ssize_t>(std::min<std::uint64_t>(faults.fault.some, requested));
  }
  errno = faults.fault.error;
  return -1;
}

}  // namespace

extern "C" {

ssize_t __real_pwritev(int fd, const iovec* parts, int count, off_t offset);
ssize_t __real_pwrite(int fd, const void* from, std::size_t size, off_t offset);
ssize_t __real_pread(int fd, void* to, std::size_t size, off_t offset);

ssize_t __wrap_pwritev(int fd, const iovec* parts, int count, off_t offset) {
  std::size_t requested = 0;
  for (int i = 0; i < count; ++i) requested += parts[i].iov_len;
  const ssize_t allowed = Outcome(writes, ++writes.calls, requested);
  if (allowed == static_cast<ssize_t>(requested)) return __real_pwritev(fd, parts, count, offset);
  ssize_t left = allowed;
  for (int i = 0; i < count && left > 0; ++i) {
    const iovec part = {parts[i].iov_base, std::min(parts[i].iov_len, static_cast<std::size_t>(left))};
    const ssize_t put = __real_pwritev(fd, &part, 1, offset + (allowed - left));
    if (put < 0) return put;
    left -= put;
  }
  return allowed;
}

ssize_t __wrap_pwrite(int fd, const void* from, std::size_t size, off_t offset) {
  const ssize_t allowed = Outcome(writes, ++writes.calls, size);
  return allowed <= 0 ? allowed : __real_pwrite(fd, from, static_cast<std::size_t>(allowed), offset);
}

ssize_t __wrap_pread(int fd, void* to, std::size_t size, off_t offset) {
  RunHook(offset);
  const ssize_t allowed = Outcome(reads, ++reads.calls, Readable(offset, size));
  if (allowed == 0 && size > 0 && bad_byte == offset) {
    errno = EIO;
    return -1;
  }
  return allowed <= 0 ? allowed : __real_pread(fd, to, static_cast<std::size_t>(allowed), offset);
}
}

namespace qx::test {

ScopedWriteFault::ScopedWriteFault(const CallFault& fault) {
  writes.fault = fault;
  writes.calls = 0;
}
ScopedWriteFault::~ScopedWriteFault() { writes.fault = {}; }
int ScopedWriteFault::Calls() { return writes.calls; }

ScopedReadFault::ScopedReadFault(const CallFault& fault) {
  reads.fault = fault;
  reads.calls = 0;
}
ScopedReadFault::~ScopedReadFault() { reads.fault = {}; }
int ScopedReadFault::Calls() { return reads.calls; }

ScopedReadHook::ScopedReadHook(std::function<void(int call)> action) {
  hooked_reads = 0;
  before_read = std::move(action);
}
ScopedReadHook::~ScopedReadHook() { before_read = nullptr; }
int ScopedReadHook::Calls() { return hooked_reads; }
off_t ScopedReadHook::Offset() { return hooked_offset; }

ScopedBadByte::ScopedBadByte(off_t offset) { bad_byte = offset; }
ScopedBadByte::~ScopedBadByte() { bad_byte = -1; }

}  // namespace qx::test
