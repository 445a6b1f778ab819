// Finds the layout of a log. Nothing in the file marks the end of the newest entry, but the next entry in the file has
// a lower stamp. Lines without a header before that next entry may belong to the newest entry, or to an overwritten
// one.
#include <charconv>

#include "debug/tools/TraceLayout.h"
#include "debug/tools/TraceLine.h"
#include "debug/tools/TraceMarks.h"

namespace qx::debug {

namespace {

bool TakeText(std::string_view& text, std::string_view piece) {
  if (!text.starts_with(piece)) return false;
  text.remove_prefix(piece.size());
  return true;
}

template <typename Number>
bool TakeNumber(std::string_view& text, Number& number) {
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(stop - text.data()));
  return true;
}

// The wrap that wrote `line`; unset if the line is a trace text that only resembles one. The line of a wrap is at the
// offset that it states, the end of the head, or at the beginning of the file if the wrap could not set that position.
std::optional<TraceWrap> WrapOf(const TraceLine& line) {
  const auto header = ParseTraceHeader(line.text);
  if (!header.has_value() || line.is_rest || !line.has_end) return std::nullopt;
  std::string_view text = line.text.substr(header->length);
  std::int32_t cycle = 0;
  std::uint32_t init_end = 0;
  std::uint32_t count = 0;
  std::uint32_t max_bytes = 0;
  const bool is_wrap = TakeText(text, "------ WRAP ----- Cycle=") && TakeNumber(text, cycle) &&
                       TakeText(text, ", CntInitEnd=") && TakeNumber(text, init_end) &&
                       TakeText(text, ", CurrentByteCnt=") && TakeNumber(text, count) && TakeText(text, " (MaxCnt=") &&
                       TakeNumber(text, max_bytes) && text == ")";
  if (!is_wrap || count != init_end || (line.begin != init_end && line.begin != 0)) return std::nullopt;
  return TraceWrap{.cycle = cycle, .position = line.begin, .line_end = line.end, .max_bytes = max_bytes};
}

void AddRange(TraceLayout& layout, TraceRange::Kind kind, TracePart part, std::uint64_t begin, std::uint64_t end) {
  if (begin < end || kind == TraceRange::Kind::kGap) layout.ranges.push_back({kind, part, begin, end});
}

void AddMarkFindings(TraceLayout& layout, const LogMarks& marks) {
  // The entry that crossed the limit is certainly older than the wrap.
  const bool has_only_crossing = marks.entries == 1 && marks.crossing.IsKnown();
  if (HasOneStamp(marks) && !has_only_crossing) {
    layout.findings.push_back(
        {TraceFinding::Kind::kStampsAlike,
         "all entries since the wrap have one stamp, so the position of the newest one is a guess"});
  }
  if (marks.drops > 1) {
    layout.findings.push_back(
        {TraceFinding::Kind::kClockSetBack,
         "the stamps go back at more than one place, as after a change of the clock; the order may be wrong"});
  }
}

void AddWrappedRanges(TraceLayout& layout, const TraceWrap& wrap, const Boundary& boundary, std::uint64_t older_end,
                      std::uint64_t end) {
  using Kind = TraceRange::Kind;
  AddRange(layout, Kind::kEntries, TracePart::kHead, 0, wrap.position);
  AddRange(layout, Kind::kGap, TracePart::kOlder, wrap.position, wrap.position);
  AddRange(layout, Kind::kEntries, TracePart::kOlder, boundary.older_begin, older_end);
  AddRange(layout, Kind::kPiece, TracePart::kOlder, older_end, end);
  AddRange(layout, Kind::kEntries, TracePart::kNewest, wrap.position, boundary.newest_line_end);
  AddRange(layout, Kind::kPiece, TracePart::kNewest, boundary.newest_line_end, boundary.older_begin);
}

void LayOutWrapped(TraceLayout& layout, const TraceSource& source, const TraceWrap& wrap) {
  TraceLineReader reader(source, wrap.position, source.Size());
  TraceLine line{};
  if (!reader.Next(line)) return;
  const auto header = HeaderOf(line);
  const LogMarks marks = CollectLogMarks(reader, wrap, header.has_value() ? header->stamp_ms : std::nullopt);
  const Boundary boundary = EndOfNewest(marks);
  const bool has_crossing = marks.crossing_end > boundary.older_begin;
  AddWrappedRanges(layout, wrap, boundary, has_crossing ? marks.crossing_end : marks.end, marks.end);
  AddMarkFindings(layout, marks);
  layout.newest_end = boundary.newest_line_end;
}

}  // namespace

std::optional<TraceWrap> FindTraceWrap(const TraceSource& source) {
  std::optional<TraceWrap> found;
  TraceLineReader reader(source, 0, source.Size());
  for (TraceLine line{}; reader.Next(line);) {
    const auto wrap = WrapOf(line);
    if (wrap.has_value() && (!found.has_value() || wrap->cycle > found->cycle)) found = wrap;
  }
  return found;
}

TraceLayout FindLogLayout(const TraceSource& source) {
  TraceLayout layout;
  layout.format = TraceFormat::kLog;
  layout.wrap = FindTraceWrap(source);
  if (layout.wrap.has_value()) {
    layout.cycle_begin = layout.wrap->position;
    LayOutWrapped(layout, source, *layout.wrap);
  } else {
    AddRange(layout, TraceRange::Kind::kEntries, TracePart::kNewest, 0, source.Size());
    layout.newest_end = source.Size();
  }
  return layout;
}

TraceLayout FindTraceLayout(const TraceSource& source) {
  return IsTraceRing(source) ? FindRingLayout(source) : FindLogLayout(source);
}

}  // namespace qx::debug
