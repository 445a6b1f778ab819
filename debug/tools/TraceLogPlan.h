// How a follower of a log decides what is new: from a snapshot of the file and what it kept of the snapshot before.
//
// A log does not show where its writer is, so the snapshots are compared: bytes that differ are new. All functions here
// are pure. Internal: for the follower and its tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "debug/tools/TraceLayout.h"

namespace qx::debug {

constexpr std::size_t kFingerprintBytes = 256;

// What is kept of the last snapshot.
struct LogHistory {
  bool has_started = false;       // there was one
  std::string copy;               // the file; an entry that was held back is NUL bytes here, so that it counts as new
  std::string fingerprint;        // how it began
  std::uint64_t position = 0;     // everything before it, in the order of time, has been returned
  std::optional<TraceWrap> wrap;  // its last wrap
};

// What a snapshot adds: the ranges in the order of time, the last one ending at the newest entry.
struct LogPlan {
  bool is_restart = false;
  std::uint64_t lost_bytes = 0;
  std::vector<TraceRange> ranges;
  std::uint64_t end = 0;  // where the newest entry ends
  std::optional<TraceWrap> wrap;
};

// True if the file was started over: it is shorter than what was read, has fewer wraps, or begins with another entry.
// A wrap before the end of the start goes to the beginning of the file, too.
//   read  wraps   now   wraps  begins   => restart
//   500   0       499   0      alike    => true
//   500   2       900   1      alike    => true
//   500   0       900   0      unlike   => true
//   500   0       900   1 at 0 unlike   => false
//   500   0       900   1      alike    => false
[[nodiscard]] bool HasRestarted(const LogHistory& history, const std::string& now,
                                const std::optional<TraceWrap>& wrap);

// Where the new bytes of `now` between `begin` and `limit` end: after the line feed at or after the last byte that
// differs from `copy`. The comparison ends where 4096 bytes are alike, because no entry is that long.
//   copy "ab\ncd\n"   now "ab\ncd\n"      from 0  => 0
//   copy "ab\ncd\n"   now "ab\ncd\nef\n"  from 6  => 9
//   copy "ab\ncd\n"   now "xy\ncd\n"      from 0  => 3
//   copy "ab\n"       now "ab\nc"         from 3  => 3: the line is not complete
[[nodiscard]] std::uint64_t EndOfNew(const std::string& copy, const std::string& now, std::uint64_t begin,
                                     std::uint64_t limit);

// About how many bytes were overwritten before they were read: `from` was the position, the log has wrapped `wraps`
// times since, and the oldest entry that is left begins at `older_begin`. A cycle may end one entry after the limit, so
// the number is not exact.
//   wraps 1, from 500, older 400                 => 0
//   wraps 1, from 500, older 700                 => 200
//   wraps 2, limit 1000, from 600, older at 300, head of 100 => 400 + 200
[[nodiscard]] std::uint64_t LostBytes(const TraceWrap& wrap, std::int64_t wraps, std::uint64_t from,
                                      std::uint64_t older_begin);

// What is new in the snapshot `now`. Without `has_old`, entries of the first snapshot are not new.
[[nodiscard]] LogPlan PlanLog(const LogHistory& history, const std::string& now, bool has_old);

// True if a second snapshot has the same bytes where the plan read the first one. Within one snapshot, a page can be
// older than the page after it.
[[nodiscard]] bool Confirms(const LogPlan& plan, const std::string& now, const std::string& again);

// Where the last entry of the range begins; the begin of the range if no header is in it.
[[nodiscard]] std::uint64_t LastEntryBegin(const std::string& now, const TraceRange& range);

}  // namespace qx::debug
