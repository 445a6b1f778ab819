// Makes the store's reads and writes fail on demand: the test program is linked so that its calls of pwrite, pwritev
// and pread come through here. Without an instruction they go straight to the system and are counted.
#pragma once

#include <cstdint>

namespace qx::test {

inline constexpr int kAllLater = 1 << 30;

struct CallFault {
  enum class Kind { kNone, kFails, kTakesSome, kTakesNothing };
  Kind kind = Kind::kNone;
  int nth = 0;             // the call that meets it, counted from 1
  int error = 0;           // kFails: errno
  std::uint64_t some = 0;  // kTakesSome: bytes that the call takes or gives
  int more_failing = 0;    // calls right behind it that fail with `error`
};

// Instructs the calls of one kind from construction to the end of the scope, and counts them.
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
