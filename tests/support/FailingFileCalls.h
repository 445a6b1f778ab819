// Makes file calls fail on demand: a test program that links FailingFileCalls.cpp has it in place of
// base/FileCalls.cpp. Without an instruction each call goes to the system.
//
//   const FailingCall fault({.call = FileCall::kSync, .nth = 2, .error = EIO});   the second sync fails once
//   const FailingCall fault({.call = FileCall::kOpen, .path = "r1.ind", .times = 3, .error = ENFILE});
//
// Calls of one kind are counted from the construction of the instruction; with a path, only those whose path ends in
// it.
#pragma once

#include <climits>
#include <cstddef>
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
  kCopyRange,
  kTruncate,
  kStatus,
  kStatusAt,
  kSync,
  kSyncData,
  kSyncFileSystem,
  kRename,  // with or without directories
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
  int times = 1;          // how many in a row
  int error = 0;          // the error number; 0: a read or write that handles only `bytes` bytes
  std::size_t bytes = 0;
};

inline constexpr int kAlways = INT_MAX;

// One instruction, from construction to the end of the scope. Several may be in force; the first that applies decides.
//
// Threads: constructed and destroyed while no other thread makes file calls; the calls may come from any thread.
class FailingCall {
 public:
  explicit FailingCall(FileFault fault);
  ~FailingCall();
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;

  // How many calls matched so far, failed or not.
  [[nodiscard]] int Calls() const;
  // True if a call failed because of this instruction.
  [[nodiscard]] bool HasFailed() const { return Calls() >= nth_; }

 private:
  std::size_t index_;
  int nth_;
};

}  // namespace qx::test
