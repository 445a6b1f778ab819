// The layout of a log. Nothing in the file marks the end of the newest entry: it is found at the place where the stamps
// go back, and the lines between there and the last header before it are left undecided.
#include <algorithm>
#include <charconv>

#include "debug/tools/TraceLayout.h"
#include "debug/tools/TraceLine.h"

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

// The wrap that `line` is written by, if it is genuine: it stands where it says that the head ends, or, after a wrap
// that could not go there, at the beginning of the file. A trace text that only looks like one stands elsewhere.
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

// A place where the newest entry may end.
struct Boundary {
  [[nodiscard]] bool IsKnown() const { return newest_line_end != 0; }

  std::uint64_t newest_line_end = 0;  // behind the first line of the newest entry; 0: not known
  std::uint64_t older_begin = 0;      // the first entry behind it that is whole
};

// Walks the lines behind the line of the wrap and collects what tells where the newest entry ends.
class NewestEndScan {
 public:
  NewestEndScan(const TraceWrap& wrap, std::optional<std::int64_t> wrap_stamp)
      : wrap_(wrap), wrap_stamp_(wrap_stamp), previous_stamp_(wrap_stamp), previous_line_end_(wrap.line_end) {}

  void Take(const TraceLine& line) {
    const auto header = line.is_rest ? std::nullopt : ParseTraceHeader(line.text);
    if (header.has_value()) {
      TakeHeader(line, header->stamp_ms);
    } else {
      has_headerless_ = true;
    }
    if (line.has_end && line.end > wrap_.max_bytes && crossing_line_end_ == 0) {
      crossing_line_end_ = line.end;
      crossing_entry_begin_ = entry_begin_;
      before_crossing_line_end_ = before_entry_line_end_;
    }
  }

  // The place, once every line has been taken; `end` is where the file ends.
  Boundary Decide(std::uint64_t end) {
    if (first_piece_.IsKnown() && first_piece_.older_begin == 0) first_piece_.older_begin = end;
    if (has_headerless_ && !first_piece_.IsKnown()) first_piece_ = Boundary{previous_line_end_, end};
    if (drop_behind_piece_.IsKnown()) return drop_behind_piece_;
    if (drop_.IsKnown()) return drop_;
    const Boundary at_end{previous_line_end_, end};
    if (!IsAlike()) return at_end;
    const Boundary before_crossing{before_crossing_line_end_, crossing_entry_begin_};
    const bool has_crossing = crossing_entry_begin_ != 0;
    if (first_piece_.IsKnown() && (!has_crossing || first_piece_.older_begin <= crossing_entry_begin_)) {
      return first_piece_;
    }
    return has_crossing ? before_crossing : at_end;
  }

  // Every entry of the circle has the stamp of the wrap: nothing goes back anywhere.
  bool IsAlike() const { return header_count_ > 0 && drop_count_ == 0 && previous_stamp_ == wrap_stamp_; }
  // The entry that crossed the limit is the only one, and certainly older than the wrap.
  bool HasOnlyCrossingEntry() const { return header_count_ == 1 && crossing_entry_begin_ != 0; }
  int DropCount() const { return drop_count_; }
  // Behind the line that ended the cycle before; 0 when none is left.
  std::uint64_t CrossingLineEnd() const { return crossing_line_end_; }

 private:
  void TakeHeader(const TraceLine& line, std::optional<std::int64_t> stamp) {
    const Boundary boundary{previous_line_end_, line.begin};
    if (has_headerless_ && !first_piece_.IsKnown()) first_piece_ = boundary;
    if (stamp.has_value() && previous_stamp_.has_value() && *stamp < *previous_stamp_) {
      ++drop_count_;
      if (!drop_.IsKnown()) drop_ = boundary;
      if (has_headerless_ && !drop_behind_piece_.IsKnown()) drop_behind_piece_ = boundary;
    }
    if (stamp.has_value()) previous_stamp_ = stamp;
    before_entry_line_end_ = previous_line_end_;
    entry_begin_ = line.begin;
    previous_line_end_ = line.end;
    has_headerless_ = false;
    ++header_count_;
  }

  TraceWrap wrap_;
  std::optional<std::int64_t> wrap_stamp_;
  std::optional<std::int64_t> previous_stamp_;
  std::uint64_t previous_line_end_;
  std::uint64_t before_entry_line_end_ = 0;
  std::uint64_t entry_begin_ = 0;  // of the last header; 0: none yet behind the wrap
  bool has_headerless_ = false;    // lines without a header since then
  std::uint64_t header_count_ = 0;
  int drop_count_ = 0;
  Boundary drop_;
  Boundary drop_behind_piece_;
  Boundary first_piece_;
  std::uint64_t crossing_line_end_ = 0;
  std::uint64_t crossing_entry_begin_ = 0;
  std::uint64_t before_crossing_line_end_ = 0;
};

void AddRange(TraceLayout& layout, TraceRange::Kind kind, TracePart part, std::uint64_t begin, std::uint64_t end) {
  if (begin < end || kind == TraceRange::Kind::kGap) layout.ranges.push_back({kind, part, begin, end});
}

void AddScanFindings(TraceLayout& layout, const NewestEndScan& scan) {
  if (scan.IsAlike() && !scan.HasOnlyCrossingEntry()) {
    layout.findings.push_back({TraceFinding::Kind::kStampsAlike,
                               "all entries since the wrap have one stamp, so where the newest one stands is a guess"});
  }
  if (scan.DropCount() > 1) {
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
  const auto wrap_header = ParseTraceHeader(line.text);
  NewestEndScan scan(wrap, wrap_header.has_value() ? wrap_header->stamp_ms : std::nullopt);
  std::uint64_t end = wrap.line_end;
  while (reader.Next(line)) {
    scan.Take(line);
    end = line.end;
  }
  const Boundary boundary = scan.Decide(end);
  const bool has_crossing = scan.CrossingLineEnd() > boundary.older_begin;
  AddWrappedRanges(layout, wrap, boundary, has_crossing ? scan.CrossingLineEnd() : end, end);
  AddScanFindings(layout, scan);
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
