// Finds the layout of a ring file. The file's header shows the end of the newest entry, but not the start of the newest
// cycle. A cycle may start after the gap, and after each entry "End of initialization"; the stamps show which of these
// places it is.
//
//   1024                                                                                        size
//   | header block | END | gap | kept from the start | newest entries | END | older entries | ..... |
#include <algorithm>
#include <array>
#include <utility>

#include "debug/RingFormat.h"
#include "debug/tools/TraceLayout.h"
#include "debug/tools/TraceLine.h"
#include "debug/tools/TraceMarks.h"

namespace qx::debug {

namespace {

constexpr std::size_t kLabelBytes = 34;

constexpr std::array<std::string_view, 7> kLabels = {
    "FilePath                         :", "FirstOpen                        :", "LastOpen                         :",
    "NumberOpens    (decimal)         :", "WrapCount      (decimal)         :", "RingBufferSize (decimal)         :",
    "CurrentWritePosition (dec bytes) :"};

std::string_view Value(std::string_view header, std::size_t line) {
  const std::size_t begin = line * kRingLineBytes;
  if (header.size() < begin + kRingLineBytes || header.substr(begin, kLabelBytes) != kLabels[line]) return {};
  return header.substr(begin + kRingValueColumn, kRingLineBytes - kRingValueColumn - 2);
}

std::string TextValue(std::string_view header, std::size_t line) {
  const std::string_view value = Value(header, line);
  return std::string(value.substr(0, value.find_last_not_of(std::string_view(" \0", 2)) + 1));
}

std::optional<std::uint64_t> NumberValue(std::string_view header, std::size_t line) {
  return ParseDecimal(Value(header, line).substr(0, kRingNumberDigits));
}

bool IsTerminatorAt(const TraceSource& source, std::uint64_t offset) {
  return source.BytesAt(offset, kRingTerminator.size()) == kRingTerminator;
}

// The offset of the dots at the end of a ring that has wrapped. The dots begin a line, and fill the space that was too
// small for the next entry.
std::uint64_t FillBegin(const TraceSource& source, std::uint64_t floor) {
  std::uint64_t at = source.Size();
  while (at > floor) {
    const std::uint64_t from = at - std::min<std::uint64_t>(at - floor, kRingBlockBytes);
    const std::string block = source.BytesAt(from, static_cast<std::size_t>(at - from));
    const std::size_t last = block.find_last_not_of('.');
    if (last != std::string::npos) return block[last] == '\n' ? from + last + 1 : source.Size();
    at = from;
  }
  return floor;
}

// True if there is an entry; the blocks that fill a new file do not count.
bool HasEntries(const TraceSource& source, std::uint64_t begin, std::uint64_t end) {
  TraceLineReader reader(source, begin, end);
  for (TraceLine line{}; reader.Next(line);) {
    const auto header = HeaderOf(line);
    if (header.has_value() && !IsFillerText(line.text.substr(header->length))) return true;
  }
  return false;
}

// The entries before the write position.
struct Front {
  std::uint64_t block_end = 0;    // after the header block
  std::uint64_t kept_begin = 0;   // the first entry after the gap; 0: no entry
  std::uint64_t cycle_begin = 0;  // the first entry of the newest cycle; 0: no entry
};

Front ScanFront(const TraceSource& source, std::uint64_t write_position) {
  TraceLineReader reader(source, kRingFirstEntry, write_position);
  const HeaderBlock block = ReadHeaderBlock(reader);
  if (block.end == 0) return {.block_end = block.first_terminator != 0 ? block.first_terminator : write_position};
  const KeptMarks marks = CollectKeptMarks(reader, block);
  return {.block_end = block.end, .kept_begin = marks.first, .cycle_begin = CycleBegin(marks)};
}

// The end of the entry at `begin`, if a terminator follows it before any other entry; otherwise 0. A writer stores an
// entry and then its end in the header, and may have been killed between the two stores.
std::uint64_t EndOfUncountedEntry(const TraceSource& source, std::uint64_t begin) {
  TraceLineReader reader(source, begin, source.Size());
  bool is_first = true;
  for (TraceLine line{}; reader.Next(line); is_first = false) {
    if (IsTerminator(line)) return is_first ? 0 : line.begin;
    if (HeaderOf(line).has_value() != is_first) return 0;
  }
  return 0;
}

// The last terminator that does not end a header block, or 0.
std::uint64_t SearchTerminator(const TraceSource& source) {
  std::uint64_t found = 0;
  std::uint64_t first = 0;
  bool is_after_block = false;
  TraceLineReader reader(source, kRingFirstEntry, source.Size());
  for (TraceLine line{}; reader.Next(line);) {
    const auto header = HeaderOf(line);
    if (header.has_value()) is_after_block = line.text.substr(header->length) == kEndOfHeaderText;
    if (!IsTerminator(line)) continue;
    if (first == 0) first = line.begin;
    if (!is_after_block) found = line.begin;
  }
  return found != 0 ? found : first;
}

// The end of the newest entry: the position in the header, if a terminator is there or after one more entry; otherwise
// the position of the last terminator.
std::uint64_t FindWritePosition(const TraceSource& source, TraceLayout& layout) {
  const auto stored = layout.ring->write_position;
  if (stored.has_value() && *stored >= kRingFirstEntry && *stored < source.Size()) {
    if (IsTerminatorAt(source, *stored)) return *stored;
    if (const std::uint64_t end = EndOfUncountedEntry(source, *stored); end != 0) return end;
  }
  const std::uint64_t found = SearchTerminator(source);
  const std::string said = stored.has_value() ? std::to_string(*stored) : "no number";
  layout.findings.push_back(
      {TraceFinding::Kind::kWritePosition,
       "the write position (" + said + ") is not where an entry ends; " +
           (found != 0 ? "the end of the newest one was found at " + std::to_string(found)
                       : "without the end of the newest one, the entries are in the order of the file")});
  return found;
}

void CheckHeader(const TraceSource& source, TraceLayout& layout) {
  const auto add = [&layout](const char* text) { layout.findings.push_back({TraceFinding::Kind::kRingHeader, text}); };
  const TraceRingHeader& ring = *layout.ring;
  if (!ring.opens.has_value()) add("the number of opens is not readable");
  if (!ring.wraps.has_value()) add("the number of wraps is not readable");
  if (ring.size != source.Size()) add("the size in the header is not that of the file");
}

void AddRange(TraceLayout& layout, TracePart part, std::uint64_t begin, std::uint64_t end) {
  if (begin < end) layout.ranges.push_back({TraceRange::Kind::kEntries, part, begin, end});
}

// Lays out a ring that has never wrapped: all entries in the order of the file. The gap after the header block is left
// out.
void LayOutFilling(TraceLayout& layout, const Front& front, std::uint64_t write_position) {
  AddRange(layout, TracePart::kNewest, kRingFirstEntry, front.block_end);
  AddRange(layout, TracePart::kNewest, front.kept_begin != 0 ? front.kept_begin : write_position, write_position);
  layout.cycle_begin = front.kept_begin != 0 ? front.kept_begin : kRingFirstEntry;
}

void LayOutWrapped(TraceLayout& layout, const Front& front, std::uint64_t write_position, std::uint64_t fill) {
  const std::uint64_t cycle = front.cycle_begin != 0 ? front.cycle_begin : write_position;
  AddRange(layout, TracePart::kHead, front.kept_begin != 0 ? front.kept_begin : cycle, cycle);
  layout.ranges.push_back({TraceRange::Kind::kGap, TracePart::kOlder, cycle, cycle});
  AddRange(layout, TracePart::kOlder, std::min(write_position + kRingTerminator.size(), fill), fill);
  AddRange(layout, TracePart::kNewest, kRingFirstEntry, front.block_end);
  AddRange(layout, TracePart::kNewest, cycle, write_position);
  layout.cycle_begin = cycle;
}

// Reads the header until two reads in a row are equal: during one read, only half of a number's store may be visible.
// If a fast writer changes the header between all reads, the last one counts.
std::string HeaderText(const TraceSource& source) {
  constexpr std::size_t kHeaderBytes = kLabels.size() * kRingLineBytes;
  constexpr int kReadsMax = 10;
  std::string header = source.BytesAt(0, kHeaderBytes);
  for (int reads = 1; reads < kReadsMax; ++reads) {
    std::string again = source.BytesAt(0, kHeaderBytes);
    if (again == header) return header;
    header = std::move(again);
  }
  return header;
}

}  // namespace

bool IsTraceRing(const TraceSource& source) { return source.BytesAt(0, kLabelBytes) == kLabels[0]; }

TraceRingHeader ReadTraceRingHeader(const TraceSource& source) {
  const std::string header = HeaderText(source);
  return {.first_open = TextValue(header, 1),
          .last_open = TextValue(header, 2),
          .opens = NumberValue(header, 3),
          .wraps = NumberValue(header, 4),
          .size = NumberValue(header, 5),
          .write_position = NumberValue(header, 6)};
}

TraceLayout FindRingLayout(const TraceSource& source) {
  TraceLayout layout;
  layout.format = TraceFormat::kRing;
  layout.ring = ReadTraceRingHeader(source);
  CheckHeader(source, layout);
  const std::uint64_t write_position = FindWritePosition(source, layout);
  layout.newest_end = write_position;
  if (write_position == 0) {
    AddRange(layout, TracePart::kNewest, kRingFirstEntry, source.Size());
    return layout;
  }
  const std::uint64_t after_end = write_position + kRingTerminator.size();
  const std::uint64_t fill = FillBegin(source, after_end);
  const bool has_wrapped =
      layout.ring->wraps.has_value() ? *layout.ring->wraps != 0 : HasEntries(source, after_end, fill);
  const Front front = ScanFront(source, write_position);
  if (has_wrapped) {
    LayOutWrapped(layout, front, write_position, fill);
  } else {
    LayOutFilling(layout, front, write_position);
  }
  return layout;
}

}  // namespace qx::debug
