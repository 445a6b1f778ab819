// Collects marks while the lines of a trace file are scanned, and decides from them where the newest entry and the
// newest cycle are.
//
// A file may have billions of entries, so there is no list of entries: of each kind of boundary only the first one is
// kept. docs/trace-reading.md explains their meaning. Internal: for the layouts and their tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "debug/tools/TraceLayout.h"
#include "debug/tools/TraceLine.h"

namespace qx::debug {

// The header that the line begins with; unset for a line of an entry's text.
[[nodiscard]] std::optional<TraceHeader> HeaderOf(const TraceLine& line);

// True for the terminator line, "## TRACE-END ##", which follows the newest entry of a ring.
[[nodiscard]] bool IsTerminator(const TraceLine& line);

// "___" => true   "" => false: the text of the blocks that fill a new ring.
[[nodiscard]] bool IsFillerText(std::string_view text);

// The last entry of a header block.
constexpr std::string_view kEndOfHeaderText = "# End of header.";

// --- a log that has wrapped -------------------------------------------------------------------------------------

// An entry after the line of the wrap.
struct EntryMark {
  std::uint64_t begin = 0;
  std::uint64_t line_end = 0;            // after its first line
  std::optional<std::int64_t> stamp_ms;  // unset: unknown
  bool follows_lines = false;            // lines without a header are between the previous entry and this one
};

// A boundary between two entries, of which the first may be the newest entry.
struct Boundary {
  [[nodiscard]] bool IsKnown() const { return newest_line_end != 0; }
  bool operator==(const Boundary&) const = default;

  std::uint64_t newest_line_end = 0;  // after the first line of the entry before the boundary; 0: there is no boundary
  std::uint64_t older_begin = 0;      // the entry after the boundary
};

// The marks the end of the lines after the line of the wrap.
struct LogMarks {
  std::uint64_t entries = 0;
  int drops = 0;                    // the number of times that the stamps go back
  Boundary drop;                    // the first boundary at which they go back
  Boundary lines;                   // the first boundary with lines without a header
  Boundary drop_with_lines;         // the first boundary with both properties
  Boundary crossing;                // before the entry that made the writer wrap
  std::uint64_t crossing_end = 0;   // the end of the first line above the limit; 0: it was overwritten
  std::uint64_t last_line_end = 0;  // after the first line of the last entry
  std::optional<std::int64_t> wrap_stamp_ms;
  std::optional<std::int64_t> last_stamp_ms;  // the last one that is known
  std::uint64_t end = 0;                      // of the lines
};

// The marks before the first entry.
[[nodiscard]] LogMarks StartLogMarks(const TraceWrap& wrap, std::optional<std::int64_t> wrap_stamp_ms);

// Marks the next entry. Each row shows the stamps of the entries (with "+" if lines without a header are before the
// entry) and the first boundaries:
//   wrap 5, 6 7 2 3    => drop before 2
//   wrap 5, 6 +2 3     => drop, lines and both before 2
//   wrap 5, 6 2 +3 1   => drop before 2, lines before 3, both: none
//   wrap 5, 6 ? 2      => drop before 2: an unknown stamp does not count
void NoteEntry(LogMarks& marks, const EntryMark& entry);

// Marks the remaining lines of `reader`: those after the line of the wrap.
[[nodiscard]] LogMarks CollectLogMarks(TraceLineReader& reader, const TraceWrap& wrap,
                                       std::optional<std::int64_t> wrap_stamp_ms);

// True if all entries have the same stamp as the wrap, so that the stamps do not show where the newest entry is.
[[nodiscard]] bool HasOneStamp(const LogMarks& marks);

// The end of the newest entry.
//   a drop with lines before it             => there
//   a drop                                  => there
//   stamps that rise, or no entry           => at the end: the newest cycle has overwritten the older one
//   one stamp, lines not after the crossing => at the first lines without a header
//   one stamp, a crossing                   => before the entry that made the writer wrap
//   one stamp, neither                      => at the end
[[nodiscard]] Boundary EndOfNewest(const LogMarks& marks);

// --- a ring -----------------------------------------------------------------------------------------------------

// The header block at the beginning of a ring.
struct HeaderBlock {
  std::uint64_t end = 0;                   // the offset of the terminator after the block; 0: the block is not complete
  std::uint64_t first_terminator = 0;      // 0: there is no block
  std::optional<std::int64_t> stamp_ms{};  // of its first entry
};

[[nodiscard]] HeaderBlock ReadHeaderBlock(TraceLineReader& reader);

// An entry between the header block and the write position.
struct KeptEntry {
  std::uint64_t begin = 0;
  bool is_start = false;  // a cycle may begin with it: it is the first after the gap, or after "End of initialization"
  bool is_new = false;    // its stamp is not before that of the header block
};

// The marks of the entries; 0: there is no such entry.
struct KeptMarks {
  std::uint64_t first = 0;
  std::uint64_t last_start = 0;   // the last entry at which a cycle may begin
  std::uint64_t first_new = 0;    // the first new entry
  std::uint64_t cycle_begin = 0;  // the first new entry that is a start, or the start directly before it
};

// Marks the next entry. `follows_start`: the previous entry was a start. Each row shows the entries as letters (S:
// start, N: new, B: both, -: neither) and the index of the first entry of the newest cycle:
//   - - B N    => 2
//   S N N      => 0, because the entry that does not fit is formatted before the block is written
//   S - N N    => none yet
//   S - N B N  => 3
void NoteKept(KeptMarks& marks, const KeptEntry& entry, bool follows_start);

// Marks the remaining entries of `reader`: those after the header block.
[[nodiscard]] KeptMarks CollectKeptMarks(TraceLineReader& reader, const HeaderBlock& block);

// The start of the newest cycle: the first of `cycle_begin`, `first_new` and `last_start` that is not 0; otherwise 0.
[[nodiscard]] std::uint64_t CycleBegin(const KeptMarks& marks);

}  // namespace qx::debug
