// Makes file calls fail on demand. A test program links FailingFileCalls.cpp in place of base/FileCalls.cpp. Without an
// instruction each call goes to the system.
//
//   const FailingCall fault({.call = FileCall::kSync, .nth = 2, .error = EIO});   the second sync fails once
//   const FailingCall fault({.call = FileCall::kOpen, .path = "r1.ind", .times = 3, .error = ENFILE});
//
// The calls of one kind are counted from the construction of the instruction. With a path, only calls whose path ends
// with it are counted.
//
// This covers only the calls through base/File.h. tests/trust/faults makes every system call of a traced process fail.
#pragma once

#include <sys/types.h>

#include <climits>
#include <cstddef>
#include <functional>
#include <string>

namespace qx::test {

enum class FileCall {
  kOpen,
  kClose,
  kRead,
  kReadAt,
  kWrite,
  kWriteAt,
  kWriteVectorAt,
  kAnyWriteAt,  // kWriteAt or kWriteVectorAt
  kCopyRange,
  kTruncate,
  kStatus,
  kStatusAt,
  kSync,
  kSyncData,
  kSyncFileSystem,
  kRename,  // rename and renameat
  kLink,
  kMakeDirectory,
  kReadEntries,
  kRemove,
  kLock,
};

struct FileFault {
  FileCall call = FileCall::kOpen;
  std::string path = {};  // the end of the (first) path of a call that has one; empty: any
  int nth = 1;            // the first call that fails, counted from 1
  int times = 1;          // the number of calls in a row that fail
  int error = 0;          // the error number; 0: a read or write that handles only `bytes` bytes
  std::size_t bytes = 0;
};

inline constexpr int kAlways = INT_MAX;

// An instruction, in force from construction to the end of the scope. Several may be in force; the first one that
// applies decides.
//
// Threads: constructed and destroyed while no other thread makes file calls; the calls may come from any thread.
class FailingCall {
 public:
  explicit FailingCall(FileFault fault);
  ~FailingCall();
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;

  // The number of calls so far that matched, failed or not.
  [[nodiscard]] int Calls() const;
  // True if a call failed because of this instruction.
  [[nodiscard]] bool HasFailed() const { return Calls() >= nth_; }

 private:
  std::size_t index_;
  int nth_;
};

// Counts the calls of one kind.
class CountedCalls {
 public:
  explicit CountedCalls(FileCall call) : counter_({.call = call, .nth = kAlways}) {}
  [[nodiscard]] int Calls() const { return counter_.Calls(); }

 private:
  FailingCall counter_;
};

// A disk that becomes full: the `nth` write at an offset writes only `bytes` bytes, and the `failing` writes after it
// fail with ENOSPC.
class FullDisk {
 public:
  explicit FullDisk(int nth, std::size_t bytes, int failing = kAlways);
  [[nodiscard]] int Calls() const { return cut_.Calls(); }

 private:
  FailingCall cut_;
  FailingCall rest_;
};

// Runs an action before every read at an offset, in place of a writer in another process. The action gets the number of
// the read, counted from 1 at the construction. Reads by the action are not counted and run no action. There is at most
// one such object.
class BeforeEachRead {
 public:
  explicit BeforeEachRead(std::function<void(int read)> action);
  ~BeforeEachRead();
  BeforeEachRead(const BeforeEachRead&) = delete;
  BeforeEachRead& operator=(const BeforeEachRead&) = delete;

  [[nodiscard]] int Reads() const;
  // The offset of the read before which the action runs.
  [[nodiscard]] off_t Offset() const;
};

// Runs an action before the first call of this kind whose path ends with `path`, in place of another process. There is
// at most one such object.
class BeforeTheCall {
 public:
  BeforeTheCall(FileCall call, std::string path, std::function<void()> action);
  ~BeforeTheCall();
  BeforeTheCall(const BeforeTheCall&) = delete;
  BeforeTheCall& operator=(const BeforeTheCall&) = delete;
};

// A byte that cannot be read, in any file: a read at an offset ends before the byte at `offset`, and a read that begins
// there fails with EIO. There is at most one such object.
class UnreadableByte {
 public:
  explicit UnreadableByte(off_t offset);
  ~UnreadableByte();
  UnreadableByte(const UnreadableByte&) = delete;
  UnreadableByte& operator=(const UnreadableByte&) = delete;
};

}  // namespace qx::test
