// Follows the writer of a trace file, also across wraps and restarts: returns the entries that are new since the last
// snapshot.
//
// A log does not show its write position, so the follower keeps a copy of the file, and bytes that differ from the copy
// are new. The newest entry of a log is returned only when it has been unchanged for a while, or another one follows
// it: a snapshot can fall into the middle of a write. A ring's header has its write position.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "debug/tools/TraceUnroll.h"

namespace qx::debug {

// A larger file cannot be followed, because up to three copies of a log are in memory.
constexpr std::uint64_t kFollowedBytesMax = std::uint64_t{256} << 20;

// The time for which the newest entry of a log must be unchanged: a writer can be preempted in the middle of a write
// for tens of milliseconds.
constexpr std::chrono::milliseconds kSettled{50};

struct TraceFollowEvent {
  enum class Kind {
    kEntry,    // `entry` is new
    kRestart,  // the file was started over; its entries that were not read are lost
    kLost,     // the writer was faster than the reader: about `bytes` bytes were overwritten before they were read
  };
  Kind kind = Kind::kEntry;
  TraceEntry entry;
  std::uint64_t bytes = 0;
};

// The result of one snapshot.
struct TracePoll {
  std::vector<TraceFollowEvent> events;
  bool is_pending = false;  // a later snapshot will return more
  bool is_missing = false;  // there is no file at the path now
  int error = 0;            // the file cannot be read any more: EFBIG for one that is too large
};

// Follows a log or a ring.
class TraceFileFollower {
 public:
  TraceFileFollower() = default;
  virtual ~TraceFileFollower() = default;
  TraceFileFollower(const TraceFileFollower&) = delete;
  TraceFileFollower& operator=(const TraceFileFollower&) = delete;

  // Adds the new entries of `file` to `poll`; with `is_last`, also the newest one. [owning thread]
  virtual void Poll(const TraceFile& file, bool is_last, TracePoll& poll) = 0;
};

// Follows the file at a path.
//
// Threads: one thread.
// Owns: the open file and a copy of it.
// Failure: bytes that are not entries are returned as entries of kind kPiece. If the writer is faster than the
// snapshots, kLost reports it.
class TraceFollower {
 public:
  // With `from_now`, the entries of the first snapshot are not returned. `settled` is the time for which the newest
  // entry of a log must be unchanged before it is returned. [owning thread]
  TraceFollower(std::string path, bool from_now, std::chrono::milliseconds settled = kSettled);
  ~TraceFollower();

  // Opens the file; 0 or the error number. [owning thread]
  [[nodiscard]] int Open();

  // Takes a snapshot, and returns what is new since the last call. [owning thread]
  TracePoll Poll();

 private:
  void ChooseKind();
  [[nodiscard]] bool IsSameFile(bool& is_missing) const;

  std::string path_;
  bool from_now_;
  std::chrono::milliseconds settled_;
  std::unique_ptr<TraceFile> file_;
  std::unique_ptr<TraceFileFollower> follower_;  // null: the file is still empty
};

std::unique_ptr<TraceFileFollower> MakeLogFollower(bool from_now, std::chrono::milliseconds settled);
std::unique_ptr<TraceFileFollower> MakeRingFollower(bool from_now);

}  // namespace qx::debug
