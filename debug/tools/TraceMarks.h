// The marks that a scan of a trace file's lines collects as plain values, and the decisions from them.
//
// A file may have billions of entries, so no list of them is kept: of each kind of boundary only the first one is kept.
// docs/trace-reading.md explains their meaning. Internal: for the layouts and their tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "debug/tools/TraceLayout.h"
#include "debug/tools/TraceLine.h"

namespace qx::debug {

// The header that the line begins with; unset for a line of an entry's text.
[[nodiscard]] std::optional<TraceHeader> HeaderOf(const TraceLine& line);

// The line that ends what was written last: "## TRACE-END ##".
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
  bool follows_lines = false;            // there are lines without a header between the entry before and this one
};

// A boundary between two entries: the newest entry may be the one before it.
struct Boundary {
  [[nodiscard]] bool IsKnown() const { return newest_line_end != 0; }
  bool operator==(const Boundary&) const = default;

  std::uint64_t newest_line_end = 0;  // after the first line of the entry before; 0: there is no such boundary
  std::uint64_t older_begin = 0;      // the entry after it
};

// The marks of the lines after the line of the wrap.
struct LogMarks {
  std::uint64_t entries = 0;
  int drops = 0;                    // the number of times that the stamps go back
  Boundary drop;                    // the first boundary where they do
  Boundary lines;                   // the first boundary with lines without a header
  Boundary drop_with_lines;         // the first boundary with both
  Boundary crossing;                // before the entry that made the writer wrap
  std::uint64_t crossing_end = 0;   // the end of the first line above the limit; 0: it was overwritten
  std::uint64_t last_line_end = 0;  // after the first line of the last entry
  std::optional<std::int64_t> wrap_stamp_ms;
  std::optional<std::int64_t> last_stamp_ms;  // the last one that is known
  std::uint64_t end = 0;                      // of the lines
};

// The marks before the first entry.
[[nodiscard]] LogMarks StartLogMarks(const TraceWrap& wrap, std::optional<std::int64_t> wrap_stamp_ms);

// Marks the next entry. Each row shows the entries (stamp, "+" after lines without a header) and the first boundaries:
//   wrap 5, 6 7 2 3    => drop before 2
//   wrap 5, 6 +2 3     => drop, lines and both before 2
//   wrap 5, 6 2 +3 1   => drop before 2, lines before 3, both: none
//   wrap 5, 6 ? 2      => drop before 2: an unknown stamp does not count
void NoteEntry(LogMarks& marks, const EntryMark& entry);

// Marks the remaining lines of `reader`: those after the line of the wrap.
[[nodiscard]] LogMarks CollectLogMarks(TraceLineReader& reader, const TraceWrap& wrap,
                                       std::optional<std::int64_t> wrap_stamp_ms);

// True if all entries have the stamp of the wrap, so that the stamps do not show where the newest entry is.
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

// The header block that a ring begins with.
struct HeaderBlock {
  std::uint64_t end = 0;                   // the terminator after it; 0: it is not complete
  std::uint64_t first_terminator = 0;      // 0: there is no block
  std::optional<std::int64_t> stamp_ms{};  // of its first entry
};

[[nodiscard]] HeaderBlock ReadHeaderBlock(TraceLineReader& reader);

// An entry between the header block and the write position.
struct KeptEntry {
  std::uint64_t begin = 0;
  bool is_start = false;  // a cycle may begin here: after the gap, or after the end of the initialization
  bool is_new = false;    // its stamp is not before that of the header block
};

// The marks of the entries; 0: there is no such entry.
struct KeptMarks {
  std::uint64_t first = 0;
  std::uint64_t last_start = 0;   // the last entry at which a cycle may begin
  std::uint64_t first_new = 0;    // the first new entry
  std::uint64_t cycle_begin = 0;  // the first new entry that is a start, or the start directly before it
};

// Marks the next entry. `follows_start`: the entry before it was a start. Rows show entries by their letters (S: start,
// N: new, B: both, -: neither) and the index of the newest cycle's first entry:
//   - - B N    => 2
//   S N N      => 0, because the entry that does not fit is formatted before the block is written
//   S - N N    => none yet
//   S - N B N  => 3
void NoteKept(KeptMarks& marks, const KeptEntry& entry, bool follows_start);

// Marks the remaining entries of `reader`: those after the header block.
[[nodiscard]] KeptMarks CollectKeptMarks(TraceLineReader& reader, const HeaderBlock& block);

// The start of the newest cycle: `cycle_begin`, else `first_new`, else `last_start`; 0 if no such entry exists.
[[nodiscard]] std::uint64_t CycleBegin(const KeptMarks& marks);

}  // namespace qx::debug
