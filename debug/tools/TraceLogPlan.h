// Decides for a follower of a log what is new, from a snapshot of the file and the history of earlier snapshots.
//
// A log does not show where its writer is, so the snapshots are compared: bytes that differ are new. No function here
// reads a file. Internal: for the follower and its tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "debug/tools/TraceLayout.h"

namespace qx::debug {

constexpr std::size_t kFingerprintBytes = 256;

// The history: what a follower keeps from the last snapshot.
struct LogHistory {
  bool has_started = false;       // there was a snapshot
  std::string copy;               // the file; an entry that was held back is NUL bytes here, so that it counts as new
  std::string fingerprint;        // the beginning of the file
  std::uint64_t position = 0;     // the end of the newest entry that was returned
  std::optional<TraceWrap> wrap;  // the last wrap
};

// The new ranges of a snapshot in the order of time. The last one ends with the newest entry.
struct LogPlan {
  bool is_restart = false;
  std::uint64_t lost_bytes = 0;
  std::vector<TraceRange> ranges;
  std::uint64_t end = 0;  // the end of the newest entry
  std::optional<TraceWrap> wrap;
};

// True if the file was started over: it is shorter than the part that was read, has fewer wraps, or has another
// beginning. Only a wrap at offset 0 also changes the beginning; the log wraps there as long as it has no head.
//   read  wraps   now   wraps  begins   => restart
//   500   0       499   0      alike    => true
//   500   2       900   1      alike    => true
//   500   0       900   0      unlike   => true
//   500   0       900   1 at 0 unlike   => false
//   500   0       900   1      alike    => false
[[nodiscard]] bool HasRestarted(const LogHistory& history, const std::string& now,
                                const std::optional<TraceWrap>& wrap);

// The end of the new bytes of `now` between `begin` and `limit`: the offset after the first line feed at or after the
// last byte that differs from `copy`. The comparison ends after 4096 equal bytes, because no entry is so long.
//   copy "ab\ncd\n"   now "ab\ncd\n"      from 0  => 0
//   copy "ab\ncd\n"   now "ab\ncd\nef\n"  from 6  => 9
//   copy "ab\ncd\n"   now "xy\ncd\n"      from 0  => 3
//   copy "ab\n"       now "ab\nc"         from 3  => 3: the line is not complete
[[nodiscard]] std::uint64_t EndOfNew(const std::string& copy, const std::string& now, std::uint64_t begin,
                                     std::uint64_t limit);

// The approximate number of bytes that were overwritten before they were read. The reading had reached `from`, the log
// has wrapped `wraps` times since, and the oldest entry that is left begins at `older_begin`. A cycle may end one entry
// after the limit, so the number is not exact.
//   wraps 1, from 500, older 400                 => 0
//   wraps 1, from 500, older 700                 => 200
//   wraps 2, limit 1000, from 600, older at 300, head of 100 => 400 + 200
[[nodiscard]] std::uint64_t LostBytes(const TraceWrap& wrap, std::int64_t wraps, std::uint64_t from,
                                      std::uint64_t older_begin);

// Plans what is new in the snapshot `now`. If `has_old` is false, entries of the first snapshot are not new.
[[nodiscard]] LogPlan PlanLog(const LogHistory& history, const std::string& now, bool has_old);

// True if the second snapshot `again` has the same bytes in the ranges of the plan. A second one is necessary because
// the pages of one snapshot may have been read at different moments.
[[nodiscard]] bool Confirms(const LogPlan& plan, const std::string& now, const std::string& again);

// The offset of the last entry in the range; that of the range if it has no header.
[[nodiscard]] std::uint64_t LastEntryBegin(const std::string& now, const TraceRange& range);

}  // namespace qx::debug
