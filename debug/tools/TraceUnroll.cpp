#include "debug/tools/TraceUnroll.h"

#include <algorithm>
#include <utility>

#include "debug/RingFormat.h"

namespace qx::debug {

namespace {

constexpr std::size_t kEntryBytesMax = std::size_t{1} << 20;
constexpr std::size_t kEntryLinesMax = 4096;

bool IsHeaderLine(const TraceLine& line) { return !line.is_rest && ParseTraceHeader(line.text).has_value(); }

// True for a block that fills a new ring: a header, and "_" up to the end of the block.
bool IsFiller(const TraceEntry& entry) {
  return entry.kind == TraceEntry::Kind::kEntry && entry.lines.size() == 1 && !entry.lines[0].empty() &&
         entry.end % kRingBlockBytes == 0 && entry.end - entry.begin == kRingBlockBytes &&
         entry.lines[0].find_first_not_of('_') == std::string::npos;
}

// Bytes that change if the writer overwrites an entry. In a log that has wrapped, the bytes after the newest entry
// change, and the line of the wrap changes at the next wrap. In a ring, the header changes with every entry; but before
// the first wrap no entry is overwritten, so only the number of wraps is used.
std::string MarkOf(const TraceSource& source, const TraceLayout& layout) {
  constexpr std::size_t kBeginBytes = 256;
  if (layout.format == TraceFormat::kRing) {
    const bool is_filling = layout.ring->wraps == 0U;
    return is_filling ? source.BytesAt(kRingWrapsOffset, kRingNumberDigits) : source.BytesAt(0, kRingHeaderBytes);
  }
  std::string mark = source.BytesAt(0, kBeginBytes);
  if (!layout.wrap.has_value()) return mark;
  mark +=
      source.BytesAt(layout.wrap->position, static_cast<std::size_t>(layout.wrap->line_end - layout.wrap->position));
  return mark + source.BytesAt(layout.newest_end, kBeginBytes);
}

}  // namespace

TraceEntryReader::TraceEntryReader(const TraceSource& source, std::vector<TraceRange> ranges)
    : source_(&source), ranges_(std::move(ranges)) {}
TraceEntryReader::~TraceEntryReader() = default;
TraceEntryReader::TraceEntryReader(TraceEntryReader&&) noexcept = default;
TraceEntryReader& TraceEntryReader::operator=(TraceEntryReader&&) noexcept = default;

bool TraceEntryReader::Next(TraceEntry& entry) {
  while (!has_line_) {
    if (next_range_ == ranges_.size()) return false;
    if (StartNextRange(entry)) return true;
  }
  StartEntry(entry);
  TakeLines(entry);
  return true;
}

// True if the range itself is the next result: a gap.
bool TraceEntryReader::StartNextRange(TraceEntry& entry) {
  range_ = ranges_[next_range_++];
  is_entry_open_ = false;
  if (range_.kind == TraceRange::Kind::kGap) {
    entry = TraceEntry{};
    entry.kind = TraceEntry::Kind::kGap;
    entry.part = range_.part;
    entry.begin = entry.end = range_.begin;
    return true;
  }
  lines_ = std::make_unique<TraceLineReader>(*source_, range_.begin, range_.end);
  FetchLine();
  return false;
}

void TraceEntryReader::FetchLine() {
  const std::uint64_t holes_before = lines_->HoleBytes();
  has_line_ = lines_->Next(line_);
  hole_bytes_ += lines_->HoleBytes() - holes_before;
}

void TraceEntryReader::StartEntry(TraceEntry& entry) {
  entry = TraceEntry{};
  entry.part = range_.part;
  entry.begin = line_.begin;
  const bool may_have_header = range_.kind == TraceRange::Kind::kEntries && !line_.is_rest;
  const auto header = may_have_header ? ParseTraceHeader(line_.text) : std::nullopt;
  if (!header.has_value()) {
    entry.kind = is_entry_open_ ? TraceEntry::Kind::kRest : TraceEntry::Kind::kPiece;
    return;
  }
  entry.stamp = header->stamp;
  entry.stamp_ms = header->stamp_ms;
  entry.thread = header->thread;
  entry.resident_kb = header->resident_kb;
  entry.module = header->module;
  entry.header_length = header->length;
  entry.header = line_.text.substr(0, header->length);
}

// Adds the current line and all following lines without a header to the entry, up to the greatest size of an entry.
void TraceEntryReader::TakeLines(TraceEntry& entry) {
  std::size_t bytes = 0;
  const bool takes_headers = range_.kind == TraceRange::Kind::kPiece;
  do {
    const std::string_view text = line_.text.substr(entry.lines.empty() ? entry.header_length : 0);
    if (line_.is_rest && !entry.lines.empty()) {
      entry.lines.back() += text;
    } else {
      entry.lines.emplace_back(text);
    }
    bytes += line_.text.size();
    entry.end = line_.end;
    entry.is_cut = !line_.has_end;
    FetchLine();
    is_entry_open_ = bytes >= kEntryBytesMax || entry.lines.size() >= kEntryLinesMax;
  } while (has_line_ && !is_entry_open_ && (takes_headers || !IsHeaderLine(line_)));
  if (has_line_ && line_.is_rest) entry.is_cut = false;  // the line continues in the next part
  has_cut_end_ = has_cut_end_ || entry.is_cut;
}

std::vector<TraceFinding> TraceEntryReader::Findings() const {
  std::vector<TraceFinding> findings;
  if (hole_bytes_ > 0) {
    findings.push_back({TraceFinding::Kind::kHole, std::to_string(hole_bytes_) +
                                                       " NUL bytes between the lines were skipped: somebody has "
                                                       "shortened the file while it was written"});
  }
  if (has_cut_end_) {
    findings.push_back({TraceFinding::Kind::kCutEnd, "the file ends within an entry, which is cut"});
  }
  return findings;
}

TraceUnroller::TraceUnroller(const TraceSource& source)
    : source_(&source),
      layout_(FindTraceLayout(source)),
      mark_(MarkOf(source, layout_)),
      reader_(source, layout_.ranges) {}

bool TraceUnroller::Next(TraceEntry& entry) {
  do {
    if (!reader_.Next(entry)) return false;
  } while (layout_.format == TraceFormat::kRing && IsFiller(entry));
  has_entries_ = has_entries_ || entry.kind == TraceEntry::Kind::kEntry;
  // Only the first line of the newest range is the line of the wrap; another text that resembles it is an ordinary
  // entry.
  if (layout_.wrap.has_value() && entry.part == TracePart::kNewest && entry.begin == layout_.wrap->position) {
    entry.kind = TraceEntry::Kind::kWrap;
  }
  return true;
}

std::vector<TraceFinding> TraceUnroller::Findings() const {
  std::vector<TraceFinding> findings = layout_.findings;
  const std::vector<TraceFinding> read = reader_.Findings();
  findings.insert(findings.end(), read.begin(), read.end());
  if (!has_entries_ && source_->Size() > 0) {
    findings.push_back({TraceFinding::Kind::kNoEntries, "there is no trace entry in it"});
  }
  return findings;
}

bool TraceUnroller::HasChanged() const { return MarkOf(*source_, layout_) != mark_; }

}  // namespace qx::debug
