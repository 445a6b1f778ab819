// Finds out where the entries of a trace file are, and in which order they were written.
//
// A log that has wrapped and a ring are written in a circle, so their bytes are not in the order of time. A layout
// lists the ranges of the file in that order. docs/trace-reading.md describes how they are found, and what a file does
// not show.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "debug/tools/TraceSource.h"

namespace qx::debug {

enum class TraceFormat { kLog, kRing };

// Which part of the circle a range belongs to.
enum class TracePart {
  kHead,    // the beginning of the file, which a wrap never overwrites
  kOlder,   // the rest of the previous cycle
  kNewest,  // written since the last wrap; all of a file that has not wrapped
};

struct TraceRange {
  enum class Kind {
    kEntries,
    kPiece,  // lines of which it is not known to which entry they belong
    kGap,    // no bytes; the entries of this time were overwritten
  };
  Kind kind;
  TracePart part;
  std::uint64_t begin;
  std::uint64_t end;
};

// A finding about a file, for an operator.
struct TraceFinding {
  enum class Kind {
    kNoEntries,      // the file has bytes, but no entry
    kHole,           // NUL bytes between lines
    kCutEnd,         // the last line has no line feed
    kStampsAlike,    // the stamps do not show where the newest entry of a log is
    kClockSetBack,   // stamps go back at more than one place
    kRingHeader,     // a line of a ring's header is not valid
    kWritePosition,  // the write position of a ring is not where the newest entry ends
  };
  Kind kind;
  std::string text;
};

// The line that a wrap of a log writes at the end of the head.
struct TraceWrap {
  std::int64_t cycle = 0;
  std::uint64_t position = 0;  // of the line: the size of the head
  std::uint64_t line_end = 0;
  std::uint64_t max_bytes = 0;  // the first entry that ended after this offset was the last of its cycle
};

// The header of a ring file. A number that does not have 16 digits is unset.
struct TraceRingHeader {
  std::string first_open;
  std::string last_open;
  std::optional<std::uint64_t> opens;
  std::optional<std::uint64_t> wraps;
  std::optional<std::uint64_t> size;
  std::optional<std::uint64_t> write_position;
};

struct TraceLayout {
  TraceFormat format = TraceFormat::kLog;
  std::vector<TraceRange> ranges;  // in the order of time
  std::vector<TraceFinding> findings;
  std::optional<TraceWrap> wrap;        // of a log that has wrapped
  std::optional<TraceRingHeader> ring;  // of a ring
  // The offset after the newest entry; in a wrapped log, after the first line of that entry, because the file does not
  // show how many more lines it has.
  std::uint64_t newest_end = 0;
  // The offset at which the newest cycle began, and to which the next wrap returns.
  std::uint64_t cycle_begin = 0;
};

// Finds the layout of a log or a ring, whatever its bytes. The needed memory is limited, however large the file is.
// [any thread]
TraceLayout FindTraceLayout(const TraceSource& source);

// Whether the source begins like a ring file. [any thread]
bool IsTraceRing(const TraceSource& source);

// The header of a ring file as it is now. [any thread]
TraceRingHeader ReadTraceRingHeader(const TraceSource& source);

// The line of the last wrap of a log. [any thread]
std::optional<TraceWrap> FindTraceWrap(const TraceSource& source);

// Internal: the two kinds of layout.
TraceLayout FindLogLayout(const TraceSource& source);
TraceLayout FindRingLayout(const TraceSource& source);

}  // namespace qx::debug
