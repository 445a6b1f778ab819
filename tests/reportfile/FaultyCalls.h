// Makes the store's reads and writes fail on demand: the test program is linked so that these functions replace pwrite,
// pwritev and pread. Without an instruction they call the system and are counted.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>

namespace qx::test {

inline constexpr int kAllLater = 1 << 30;

struct CallFault {
  enum class Kind { kNone, kFails, kTakesSome, kTakesNothing };
  Kind kind = Kind::kNone;
  int nth = 0;             // the call that fails, counted from 1
  int error = 0;           // kFails: errno
  std::uint64_t some = 0;  // kTakesSome: bytes that the call writes or reads
  int more_failing = 0;    // calls directly after it that fail with `error`
};

// Runs an action before every read, like a writer in another process. The action gets the number of the call, counted
// from 1 at the construction. Reads of the action itself do not count.
class ScopedReadHook {
 public:
  explicit ScopedReadHook(std::function<void(int call)> action);
  ~ScopedReadHook();
  ScopedReadHook(const ScopedReadHook&) = delete;
  ScopedReadHook& operator=(const ScopedReadHook&) = delete;
  static int Calls();
  // The offset of the read before which the action runs.
  static off_t Offset();
};

// An unreadable offset, in any file: a read ends before the byte at `offset`, and fails with EIO at it.
class ScopedBadByte {
 public:
  explicit ScopedBadByte(off_t offset);
  ~ScopedBadByte();
  ScopedBadByte(const ScopedBadByte&) = delete;
  ScopedBadByte& operator=(const ScopedBadByte&) = delete;
};

// Sets the faults of one kind of call from construction to the end of the scope, and counts the calls.
class ScopedWriteFault {
 public:
  explicit ScopedWriteFault(const CallFault& fault = {});
  ~ScopedWriteFault();
  ScopedWriteFault(const ScopedWriteFault&) = delete;
  ScopedWriteFault& operator=(const ScopedWriteFault&) = delete;
  static int Calls();
};

class ScopedReadFault {
 public:
  explicit ScopedReadFault(const CallFault& fault = {});
  ~ScopedReadFault();
  ScopedReadFault(const ScopedReadFault&) = delete;
  ScopedReadFault& operator=(const ScopedReadFault&) = delete;
  static int Calls();
};

}  // namespace qx::test
