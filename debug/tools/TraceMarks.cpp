#include "debug/tools/TraceMarks.h"

#include "debug/RingFormat.h"

namespace qx::debug {

namespace {

constexpr std::string_view kTerminatorText = "## TRACE-END ##";
constexpr std::string_view kEndOfInitText = "### End of initialization. ###";

// True for a block that fills a new ring: a header, and "_" up to the end of the block.
bool IsFiller(const TraceLine& line, std::string_view text) {
  return IsFillerText(text) && line.end % kRingBlockBytes == 0;
}

// The latest end of the gap after a header block that ends at `block_end`.
std::uint64_t GapEnd(std::uint64_t block_end) {
  return (block_end + 2 * kRingBlockBytes) / kRingBlockBytes * kRingBlockBytes;
}

bool IsNotBefore(std::optional<std::int64_t> stamp, std::optional<std::int64_t> block_stamp) {
  return stamp.has_value() && (!block_stamp.has_value() || *stamp >= *block_stamp);
}

void KeepFirst(Boundary& first, const Boundary& next) {
  if (!first.IsKnown()) first = next;
}

}  // namespace

std::optional<TraceHeader> HeaderOf(const TraceLine& line) {
  return line.is_rest ? std::nullopt : ParseTraceHeader(line.text);
}

bool IsTerminator(const TraceLine& line) { return !line.is_rest && line.has_end && line.text == kTerminatorText; }

bool IsFillerText(std::string_view text) {
  return !text.empty() && text.find_first_not_of('_') == std::string_view::npos;
}

LogMarks StartLogMarks(const TraceWrap& wrap, std::optional<std::int64_t> wrap_stamp_ms) {
  LogMarks marks;
  marks.wrap_stamp_ms = marks.last_stamp_ms = wrap_stamp_ms;
  marks.last_line_end = marks.end = wrap.line_end;
  return marks;
}

void NoteEntry(LogMarks& marks, const EntryMark& entry) {
  const Boundary before{marks.last_line_end, entry.begin};
  const bool is_drop =
      entry.stamp_ms.has_value() && marks.last_stamp_ms.has_value() && *entry.stamp_ms < *marks.last_stamp_ms;
  if (is_drop) {
    ++marks.drops;
    KeepFirst(marks.drop, before);
  }
  if (entry.follows_lines) KeepFirst(marks.lines, before);
  if (is_drop && entry.follows_lines) KeepFirst(marks.drop_with_lines, before);
  if (entry.stamp_ms.has_value()) marks.last_stamp_ms = entry.stamp_ms;
  marks.last_line_end = entry.line_end;
  ++marks.entries;
}

LogMarks CollectLogMarks(TraceLineReader& reader, const TraceWrap& wrap, std::optional<std::int64_t> wrap_stamp_ms) {
  LogMarks marks = StartLogMarks(wrap, wrap_stamp_ms);
  Boundary before_entry;  // before the entry whose lines are being read
  bool has_lines = false;
  for (TraceLine line{}; reader.Next(line); marks.end = line.end) {
    const auto header = HeaderOf(line);
    if (header.has_value()) {
      before_entry = {marks.last_line_end, line.begin};
      NoteEntry(marks, {line.begin, line.end, header->stamp_ms, has_lines});
    }
    has_lines = !header.has_value();
    if (line.has_end && line.end > wrap.max_bytes && marks.crossing_end == 0) {
      marks.crossing_end = line.end;
      marks.crossing = before_entry;
    }
  }
  if (has_lines) KeepFirst(marks.lines, {marks.last_line_end, marks.end});
  return marks;
}

bool HasOneStamp(const LogMarks& marks) {
  return marks.entries > 0 && marks.drops == 0 && marks.last_stamp_ms == marks.wrap_stamp_ms;
}

Boundary EndOfNewest(const LogMarks& marks) {
  if (marks.drop_with_lines.IsKnown()) return marks.drop_with_lines;
  if (marks.drop.IsKnown()) return marks.drop;
  const Boundary at_end{marks.last_line_end, marks.end};
  if (!HasOneStamp(marks)) return at_end;
  if (!marks.crossing.IsKnown()) return marks.lines.IsKnown() ? marks.lines : at_end;
  const bool are_lines_first = marks.lines.IsKnown() && marks.lines.older_begin <= marks.crossing.older_begin;
  return are_lines_first ? marks.lines : marks.crossing;
}

HeaderBlock ReadHeaderBlock(TraceLineReader& reader) {
  HeaderBlock block;
  bool is_complete = false;
  for (TraceLine line{}; block.end == 0 && reader.Next(line);) {
    const auto header = HeaderOf(line);
    if (header.has_value()) is_complete = line.text.substr(header->length) == kEndOfHeaderText;
    if (header.has_value() && !block.stamp_ms.has_value()) block.stamp_ms = header->stamp_ms;
    if (!IsTerminator(line)) continue;
    if (block.first_terminator == 0) block.first_terminator = line.begin;
    if (is_complete) block.end = line.begin;
  }
  return block;
}

void NoteKept(KeptMarks& marks, const KeptEntry& entry, bool follows_start) {
  if (marks.first == 0) marks.first = entry.begin;
  if (entry.is_start) marks.last_start = entry.begin;
  if (!entry.is_new || marks.cycle_begin != 0) return;
  if (entry.is_start || follows_start) marks.cycle_begin = marks.last_start;
  if (marks.first_new == 0) marks.first_new = entry.begin;
}

KeptMarks CollectKeptMarks(TraceLineReader& reader, const HeaderBlock& block) {
  KeptMarks marks;
  bool is_start = true;
  bool follows_start = false;
  for (TraceLine line{}; reader.Next(line);) {
    if (IsTerminator(line) && line.end <= GapEnd(block.end)) {
      // This is the end of an older, longer block: what was found before it is the rest of that block, not entries.
      marks = KeptMarks{};
      is_start = true;
      continue;
    }
    const auto header = HeaderOf(line);
    if (!header.has_value()) continue;
    const std::string_view text = line.text.substr(header->length);
    if (IsFiller(line, text)) continue;
    NoteKept(marks, {line.begin, is_start, IsNotBefore(header->stamp_ms, block.stamp_ms)}, follows_start);
    follows_start = is_start;
    is_start = text == kEndOfInitText;
  }
  return marks;
}

std::uint64_t CycleBegin(const KeptMarks& marks) {
  if (marks.cycle_begin != 0) return marks.cycle_begin;
  return marks.first_new != 0 ? marks.first_new : marks.last_start;
}

}  // namespace qx::debug
