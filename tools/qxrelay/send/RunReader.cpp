#include "tools/qxrelay/send/RunReader.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/File.h"
#include "reportfile/RecordEnds.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/RecordOverlap.h"
#include "reportfile/tools/RecordWriter.h"
#include "reportfile/tools/UncountedPart.h"

namespace qx::relay {

namespace {

using report::IndexHeader;

constexpr std::uint64_t kRunRecordsMax = 8192;
constexpr std::int64_t kRecordBytesMin = 2;  // its line end
// The most bytes that a writer may have written after the end marker that the header shows: a part, or one long record.
constexpr std::int64_t kUncountedBytesMax = report::kPartBytesMax + 0x100000;

bool IsFull(const IndexHeader& header) { return header.highestIndex != 0 && header.highestIndex == header.maxRecord; }

// The end of the part of the data file that the current round has overwritten.
std::int64_t WrittenEnd(const IndexHeader& header) {
  if (header.writePosition == 0) return 0;
  return std::int64_t{header.writePosition} + static_cast<std::int64_t>(report::kEndMarker.size());
}

// How many of the oldest records of this header a writer may be replacing now, or may have replaced without a new
// header. A slot counts as replaced if it refers to a place where the writer may be writing a batch, even if an old
// record is at this place by chance. Otherwise a record could be sent under the number of another one.
std::uint32_t UnsafeRecords(CReportFileBase& store) {
  const IndexHeader& header = store.header();
  if (!IsFull(header)) return 0;
  std::string text;
  const auto slot_at = [&](std::uint32_t slot) { return std::int64_t{store.getPositionFromIndexFile(slot)}; };
  const auto end_of = [&](std::uint32_t slot, std::int64_t begin) -> std::optional<std::int64_t> {
    if (!store.readLine(text, slot) || !text.ends_with(report::kLineEnd)) return std::nullopt;
    if (begin == header.writePosition && text == report::kEndMarker) return std::nullopt;
    return begin + static_cast<std::int64_t>(text.size());
  };
  const auto is_marker_at = [](std::int64_t) { return false; };
  return std::max(std::uint32_t{1}, report::FindUncountedPart(header, slot_at, end_of, is_marker_at).slots);
}

}  // namespace

// Records with neighbouring slots and rising offsets. The offsets are those before the texts were read.
struct RunReader::Piece {
  std::uint64_t first = 0;
  std::uint32_t slot = 0;
  std::vector<std::uint32_t> offsets;
  std::int64_t end = 0;  // where the text of the last record must end
  int error = 0;

  [[nodiscard]] std::size_t Count() const { return offsets.size(); }
  [[nodiscard]] std::int64_t BytesOf(std::size_t record) const {
    return (record + 1 < offsets.size() ? std::int64_t{offsets[record + 1]} : end) - offsets[record];
  }
};

int RunReader::Open() {
  view_ = {};
  errno = 0;
  if (!store_.OpenRead(path_.c_str())) {
    const int error = errno;
    store_.Close();
    return error != 0 ? error : EIO;
  }
  if (const int error = CheckSizes(); error != 0) return error;
  view_.header = store_.header();
  view_.unsafe = UnsafeRecords(store_);
  return 0;
}

// Compares the header with the sizes of the files: a damaged header may count billions of records that are not there.
int RunReader::CheckSizes() const {
  const IndexHeader& header = store_.header();
  if (header.highestIndex == 0) return 0;
  if (!report::HasPlausibleRing(header)) return EBADMSG;
  struct stat status = {};
  if (const int error = file::StatusOf(report::IndexFileName(path_).c_str(), status); error != 0) return error;
  if (status.st_size < report::SlotOffset(header.highestIndex)) return EBADMSG;
  if (const int error = file::StatusOf(report::DataFileName(path_).c_str(), status); error != 0) return error;
  return status.st_size / kRecordBytesMin < header.highestIndex ? EBADMSG : 0;
}

RecordRun RunReader::Read(const RecordRange& range, std::uint64_t first, std::size_t bytes_max) {
  RecordRun run;
  run.first = first;
  const Piece piece = PieceFrom(range, first, bytes_max);
  run.error = piece.error;
  if (run.error == 0 && piece.Count() > 0) run.error = ReadTexts(piece, run);
  if (run.error == 0 && !run.lengths.empty()) Judge(piece, run);
  if (run.error != 0) {
    run.lengths.clear();
    run.texts.clear();
  }
  return run;
}

RunReader::Piece RunReader::PieceFrom(const RecordRange& range, std::uint64_t first, std::size_t bytes_max) {
  const IndexHeader& header = view_.header;
  const std::uint64_t age = first - range.oldest;
  Piece piece = {.first = first, .slot = report::SlotOfAge(header, static_cast<std::uint32_t>(age)), .offsets = {}};
  const std::uint64_t to_ring_end = header.maxRecord - piece.slot;
  const std::uint64_t count = std::min({range.end - first, to_ring_end, kRunRecordsMax});
  piece.offsets.resize(count);
  piece.error = report::RecordReader(store_).ReadSlots(piece.slot, piece.offsets);
  if (piece.error != 0) return piece;
  const std::vector<std::uint32_t>& offsets = piece.offsets;
  std::size_t kept = 1;
  while (kept < count && offsets[kept] > offsets[kept - 1] && offsets[kept] - offsets[0] <= bytes_max) ++kept;
  if (kept < count && offsets[kept] > offsets[kept - 1]) {  // the record before exceeds bytes_max
    piece.end = offsets[kept];
    if (kept > 1 && static_cast<std::size_t>(piece.end - offsets[0]) > bytes_max) piece.end = offsets[--kept];
  } else {
    piece.end = EndAfter(age + kept, offsets[kept - 1]);
  }
  piece.offsets.resize(kept);
  return piece;
}

// The end of the record at `offset`: the place where the record of this age begins, which is the next one, or the end
// of the round.
std::int64_t RunReader::EndAfter(std::uint64_t age, std::uint32_t offset) {
  const IndexHeader& header = view_.header;
  if (age >= header.highestIndex) return header.writePosition != 0 ? header.writePosition : header.fileEnd;
  std::uint32_t next = 0;
  const std::uint32_t slot = report::SlotOfAge(header, static_cast<std::uint32_t>(age));
  if (report::RecordReader(store_).ReadSlots(slot, {&next, 1}) != 0) return header.fileEnd;
  return next > offset ? next : header.fileEnd;
}

int RunReader::ReadTexts(const Piece& piece, RecordRun& run) {
  report::RecordReader reader(store_);
  const auto count = static_cast<std::uint32_t>(piece.Count());
  const report::TakenRecords taken = reader.Take(piece.slot, {count, report::TakeLimits::kUnlimited}, &run.texts);
  if (taken.count == count && SplitWhole(piece, run)) return 0;
  run.texts.clear();
  run.lengths.clear();
  for (std::uint32_t i = 0; i < count; ++i) {
    std::string text;
    errno = 0;
    const bool is_read = store_.readLine(text, piece.slot + i);
    const int error = errno;
    if (!is_read) return run.lengths.empty() ? (error != 0 ? error : EIO) : 0;
    run.texts += text;
    run.lengths.push_back(static_cast<std::uint32_t>(text.size()));
  }
  return 0;
}

// Splits the text at the ends of the records that the slots show. False if a record ends elsewhere.
bool RunReader::SplitWhole(const Piece& piece, RecordRun& run) const {
  std::string_view rest = run.texts;
  for (std::size_t i = 0; i < piece.Count(); ++i) {
    const std::int64_t bytes = piece.BytesOf(i);
    if (bytes < kRecordBytesMin || static_cast<std::int64_t>(rest.size()) < bytes) return false;
    const auto size = static_cast<std::size_t>(bytes);
    if (report::FindTextEnd(rest.substr(0, size)) != size - 1) return false;
    run.lengths.push_back(static_cast<std::uint32_t>(size));
    rest.remove_prefix(size);
  }
  return rest.empty();
}

// Keeps the certain records. The slots are compared first; then the header is read again. So if a slot was replaced
// before it was read for the first time, the new header counts this, or UnsafeRecords finds it.
void RunReader::Judge(const Piece& piece, RecordRun& run) {
  std::vector<std::uint32_t> slots(piece.Count());
  const int slots_error = report::RecordReader(store_).ReadSlots(piece.slot, slots);
  const std::optional<RecordRange> range = slots_error == 0 ? RangeNow(run) : std::nullopt;
  if (!range.has_value()) {
    Keep(run, 0, 0);
    return;
  }
  const StoreView now = {.header = store_.header(), .unsafe = UnsafeRecords(store_)};
  const std::uint64_t oldest = now.Sendable(*range).oldest;
  const std::uint64_t round_start = RoundStart(now.header, *range);
  const bool has_old = piece.first < round_start;
  const std::int64_t lost_end = has_old ? WrittenEnd(now.header) : 0;
  const std::int64_t dirty_end = has_old ? DirtyEnd(piece.offsets.back()) : 0;
  const auto is_before = [&](std::size_t i, std::int64_t end) {
    return piece.first + i < round_start && piece.offsets[i] < end;
  };
  const std::size_t count = run.lengths.size();
  const std::size_t begin =
      oldest > run.first ? static_cast<std::size_t>(std::min<std::uint64_t>(count, oldest - run.first)) : 0;
  std::size_t unreadable = begin;
  while (unreadable < count && is_before(unreadable, lost_end)) ++unreadable;
  std::size_t end = begin;
  while (end < count && slots[end] == piece.offsets[end] && !is_before(end, dirty_end)) ++end;
  Keep(run, begin, end);
  run.first = std::max(run.first, oldest);
  run.unreadable = unreadable - begin;
}

// The range of the header as it is now. Unset if the header cannot be read, or is the header of another store.
std::optional<RecordRange> RunReader::RangeNow(const RecordRun& run) {
  // readPositions keeps the header of a file that was emptied, so the sizes are checked as well.
  if (store_.readPositions() != 0 || store_.header().highestIndex == 0 || CheckSizes() != 0) return std::nullopt;
  if (store_.header().maxRecord != view_.header.maxRecord) return std::nullopt;
  const std::optional<RecordRange> range = RangeNear(store_.header(), run.first);
  return range.has_value() && range->end >= run.Next() ? range : std::nullopt;
}

// Keeps the records from `begin` up to, but not including `end`.
void RunReader::Keep(RecordRun& run, std::size_t begin, std::size_t end) {
  const auto bytes_of = [&](std::size_t from, std::size_t to) {
    std::size_t bytes = 0;
    for (; from < to; ++from) bytes += run.lengths[from];
    return bytes;
  };
  const std::size_t bytes_before = bytes_of(0, begin);
  run.texts.resize(bytes_before + bytes_of(begin, end));
  run.texts.erase(0, bytes_before);
  run.lengths.resize(std::max(begin, end));
  run.lengths.erase(run.lengths.begin(), run.lengths.begin() + static_cast<std::ptrdiff_t>(begin));
}

// The end of the part of the data file that a writer may be writing now.
//
// Between two appends the end marker is at the write position, and a writer overwrites it first. So if it is there,
// nothing was written after it. Otherwise the next marker shows the end of the texts that the header does not count
// yet. Directly after a restart of the data file there is no marker at the write position. If the next marker is then
// the one at the end of the previous round, nothing was written.
std::int64_t RunReader::DirtyEnd(std::int64_t offset_max) {
  const IndexHeader& header = store_.header();
  const std::int64_t begin = header.writePosition;
  if (begin > offset_max) return WrittenEnd(header);
  const file::Descriptor data = file::OpenRegular(report::DataFileName(path_).c_str(), O_RDONLY);
  const std::int64_t to_round_end = header.fileEnd - begin + static_cast<std::int64_t>(report::kEndMarker.size());
  std::string bytes(static_cast<std::size_t>(std::clamp(to_round_end, std::int64_t{0}, kUncountedBytesMax)), '\0');
  const file::Progress read = data.IsOpen() ? file::ReadAt(data.Number(), begin, bytes.data(), bytes.size())
                                            : file::Progress{.bytes = 0, .error = EIO};
  if (read.Failed()) return offset_max + 1;
  bytes.resize(read.bytes);
  if (bytes.starts_with(report::kEndMarker)) return WrittenEnd(header);
  const std::size_t found = bytes.find(report::kLineEndAndMarker);
  const std::int64_t marker = begin + static_cast<std::int64_t>(found + report::kLineEnd.size());
  const std::int64_t marker_end = marker + static_cast<std::int64_t>(report::kEndMarker.size());
  if (found != std::string::npos && marker < header.fileEnd) return marker_end;
  const bool is_round_whole = found != std::string::npos || to_round_end > kUncountedBytesMax;
  return begin == 0 && is_round_whole ? 0 : offset_max + 1;
}

std::uint64_t RunReader::BytesFrom(const RecordRange& range, std::uint64_t first) {
  std::uint32_t offset = 0;
  const std::uint32_t slot = report::SlotOfAge(view_.header, static_cast<std::uint32_t>(first - range.oldest));
  if (report::RecordReader(store_).ReadSlots(slot, {&offset, 1}) != 0) return 0;
  const std::int64_t bytes = std::int64_t{view_.header.writePosition} - offset;
  return bytes > 0 ? static_cast<std::uint64_t>(bytes) : view_.header.fileEnd;
}

std::vector<std::uint64_t> RunReader::Hashes(std::uint64_t age, std::uint64_t count) {
  std::vector<std::uint64_t> hashes;
  std::string text;
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint32_t slot = report::SlotOfAge(view_.header, static_cast<std::uint32_t>(age + i));
    if (!store_.readLine(text, slot)) break;
    hashes.push_back(report::RecordHash(text));
  }
  return hashes;
}

void RunReader::Close() { store_.Close(); }

std::string_view LastText(const RecordRun& run) {
  if (run.lengths.empty()) return {};
  return std::string_view(run.texts).substr(run.texts.size() - run.lengths.back());
}

}  // namespace qx::relay
