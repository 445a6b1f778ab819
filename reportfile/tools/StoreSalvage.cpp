#include "reportfile/tools/StoreSalvage.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/StoreIo.h"
#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/UncountedPart.h"

namespace qx::report {

namespace {

constexpr std::int64_t kOffsetLimit = std::int64_t{1} << 32;

// A line of the data file from some offset on.
struct Line {
  std::int64_t begin = 0;
  std::int64_t end = 0;      // after its line feed, or where it is cut
  bool is_complete = false;  // ends with a line feed and has no NUL

  std::int64_t Bytes() const { return end - begin; }
};

struct SlotLine {
  std::uint32_t slot;
  Line line;
  bool is_taken = true;
};

class Salvager {
 public:
  Salvager(ByteSource& index, ByteSource& data, const SalvageSink& sink)
      : index_(index), data_bytes_(std::min(data.Size(), kOffsetLimit)), data_(data), texts_(data), sink_(sink) {}

  SalvageCounts Run(bool with_unindexed) {
    ReadIndex();
    FindLines();
    FindUncounted();
    DropFragments();
    if (!EmitIndexed()) return counts_;
    if (with_unindexed) EmitUnindexed();
    return counts_;
  }

 private:
  // --- the index

  void ReadIndex() {
    (void)index_.ReadAt(0, &header_, sizeof header_);  // the header is not trusted
    const std::int64_t whole = std::max<std::int64_t>(index_.Size() - SlotOffset(0), 0) / 4;
    counts_.is_cut_short = whole > kSalvageSlotsMax;
    offsets_.resize(static_cast<std::size_t>(std::min<std::int64_t>(whole, kSalvageSlotsMax)));
    const std::size_t read = index_.ReadAt(SlotOffset(0), offsets_.data(), offsets_.size() * sizeof(std::uint32_t));
    offsets_.resize(read / sizeof(std::uint32_t));
  }

  std::uint32_t SlotCount() const { return static_cast<std::uint32_t>(offsets_.size()); }

  // The slot of the oldest record. If the header's oldestIndex is not a slot, it is the slot after the one whose record
  // ends at writePosition, or the first slot.
  std::uint32_t OldestSlot() const {
    if (SlotCount() == 0) return 0;
    if (header_.oldestIndex >= SlotCount()) return SlotAfterNewest();
    return (header_.oldestIndex + uncounted_.records) % SlotCount();
  }

  bool IsFullRing() const {
    return SlotCount() > 0 && header_.oldestIndex < SlotCount() && header_.highestIndex == header_.maxRecord &&
           header_.maxRecord == SlotCount();
  }

  // Finds, in a full ring, the new records that the header does not count. The slots of the oldest records lead to
  // them.
  void FindUncounted() {
    if (!IsFullRing()) return;
    const auto slot_at = [this](std::uint32_t slot) { return std::optional<std::uint32_t>(offsets_[slot]); };
    const auto end_of = [this](std::uint32_t, std::int64_t begin) { return EndOfLine(begin); };
    const auto is_marker_at = [this](std::int64_t offset) { return IsTextAt(offset, kEndMarker); };
    uncounted_ = FindUncountedPart(header_, slot_at, end_of, is_marker_at);
  }

  // The end of the line at `begin`, if a slot leads to this line and the line is whole.
  std::optional<std::int64_t> EndOfLine(std::int64_t begin) const {
    const auto held = std::lower_bound(lines_.begin(), lines_.end(), begin,
                                       [](const SlotLine& line, std::int64_t at) { return line.line.begin < at; });
    const bool is_whole = held != lines_.end() && held->line.begin == begin && held->line.is_complete;
    return is_whole ? std::optional<std::int64_t>(held->line.end) : std::nullopt;
  }

  std::uint32_t SlotAfterNewest() const {
    for (const SlotLine& held : lines_) {
      if (held.line.end == header_.writePosition) return (held.slot + 1) % SlotCount();
    }
    return 0;
  }

  // --- lines with slots

  // Fills lines_ in the order of offsets, each offset once. The end of a line is searched for only once, also if many
  // slots lead into the same huge line.
  void FindLines() {
    std::vector<std::uint32_t> slots(SlotCount());
    for (std::uint32_t slot = 0; slot < SlotCount(); ++slot) slots[slot] = slot;
    std::stable_sort(slots.begin(), slots.end(),
                     [this](std::uint32_t a, std::uint32_t b) { return offsets_[a] < offsets_[b]; });
    lines_.reserve(slots.size());
    for (const std::uint32_t slot : slots) {
      if (lines_.empty() || lines_.back().line.begin != offsets_[slot]) lines_.push_back({slot, LineOfSlot(slot)});
    }
  }

  Line LineOfSlot(std::uint32_t slot) {
    const std::int64_t begin = offsets_[slot];
    if (lines_.empty() || begin >= lines_.back().line.end) return LineAt(begin);
    Line line = lines_.back().line;  // this one begins inside it
    line.begin = begin;
    return line;
  }

  // The line from `begin` to its first line feed. A NUL or the end of the file cuts the line.
  Line LineAt(std::int64_t begin) {
    for (std::int64_t at = begin; at < data_bytes_;) {
      const std::string_view bytes = BytesAt(at);
      if (bytes.empty()) break;
      const std::size_t end = bytes.find_first_of(std::string_view("\n\0", 2));
      if (end != std::string_view::npos) {
        return {begin, at + static_cast<std::int64_t>(end) + 1, bytes[end] == '\n'};
      }
      at += static_cast<std::int64_t>(bytes.size());
    }
    return {begin, std::max(begin, data_bytes_), false};
  }

  // Drops slots that certainly lead into the middle of a record: another slot leads to the beginning of the line, and
  // the slot after that one leads to the end of the line, as a writer's slots do. In other cases the line feed before a
  // real record may be damaged, and both texts are kept.
  void DropFragments() {
    const SlotLine* whole = nullptr;
    for (SlotLine& held : lines_) {
      const bool is_inside = whole != nullptr && held.line.begin < whole->line.end;
      if (!is_inside) {
        whole = &held;
      } else if (IsFollowedByItsNeighbour(*whole)) {
        held.is_taken = false;
      }
      held.is_taken = held.is_taken && held.line.is_complete && !IsEndMarker(held.line);
    }
  }

  bool IsFollowedByItsNeighbour(const SlotLine& held) const {
    return held.line.is_complete && offsets_[(held.slot + 1) % SlotCount()] == held.line.end;
  }

  bool IsEndMarker(const Line& line) {
    const bool follows_uncounted = uncounted_.records > 0 && line.begin == uncounted_.end;
    const bool may_be = follows_uncounted || line.begin == header_.writePosition || line.begin == header_.fileEnd;
    return may_be && BytesAt(line.begin, kEndMarker.size()).starts_with(kEndMarker);
  }

  // --- output

  bool EmitIndexed() {
    std::vector<const SlotLine*> by_slot(SlotCount(), nullptr);
    for (const SlotLine& held : lines_) by_slot[held.slot] = held.is_taken ? &held : nullptr;
    const std::uint32_t oldest = OldestSlot();
    for (std::uint32_t age = 0; age < SlotCount(); ++age) {
      const SlotLine* const held = by_slot[(std::uint64_t{oldest} + age) % SlotCount()];
      if (held == nullptr) {
        ++counts_.lost;
      } else if (Emit(held->line)) {
        ++counts_.indexed;
      } else {
        return false;
      }
    }
    return true;
  }

  // Passes whole lines without a slot to the sink. The line after an end marker is left out: it may be the rest of a
  // line that the marker overwrote.
  void EmitUnindexed() {
    bool is_after_marker = false;
    auto next_slot = lines_.begin();
    for (std::int64_t at = 0; at < data_bytes_;) {
      const Line line = LineAt(at);
      if (!line.is_complete) {
        at = AfterGarbage(line.end);
        is_after_marker = false;
        continue;
      }
      while (next_slot != lines_.end() && next_slot->line.begin < line.begin) ++next_slot;
      const bool is_indexed = next_slot != lines_.end() && next_slot->line.begin == line.begin;
      const bool is_marker = line.Bytes() == std::ssize(kEndMarker) && IsTextAt(line.begin, kEndMarker);
      const bool is_record = !is_indexed && !is_marker && !is_after_marker && EndsWithLineEnd(line);
      if (is_record && !Emit(line)) return;
      counts_.unindexed += is_record ? 1 : 0;
      is_after_marker = is_marker;
      at = line.end;
    }
  }

  // The offset after the next line feed, where the next line begins after a NUL.
  std::int64_t AfterGarbage(std::int64_t at) {
    while (at < data_bytes_) {
      const std::string_view bytes = BytesAt(at);
      if (bytes.empty()) break;
      const std::size_t end = bytes.find('\n');
      if (end != std::string_view::npos) return at + static_cast<std::int64_t>(end) + 1;
      at += static_cast<std::int64_t>(bytes.size());
    }
    return data_bytes_;
  }

  bool IsTextAt(std::int64_t offset, std::string_view text) { return BytesAt(offset, text.size()).starts_with(text); }

  bool EndsWithLineEnd(const Line& line) {
    const auto size = static_cast<std::int64_t>(kLineEnd.size());
    return line.Bytes() >= size && IsTextAt(line.end - size, kLineEnd);
  }

  bool Emit(const Line& line) {
    constexpr std::int64_t kSpareBytes = std::int64_t{1} << 20;
    emitted_bytes_ += line.Bytes();
    if (emitted_bytes_ > std::min(4 * data_bytes_ + kSpareBytes, kOffsetLimit - kSpareBytes)) {
      counts_.is_cut_short = true;
      return false;
    }
    std::string text(static_cast<std::size_t>(line.Bytes()), '\0');
    text.resize(data_.ReadAt(line.begin, text.data(), text.size()));
    if (text.ends_with('\n')) text.pop_back();
    if (text.ends_with('\r')) text.pop_back();
    return sink_(text);
  }

  std::string_view BytesAt(std::int64_t offset, std::size_t requested = 1) {
    const std::string_view bytes = texts_.At(offset, requested);
    const std::int64_t left = std::max<std::int64_t>(data_bytes_ - offset, 0);
    return bytes.substr(0, static_cast<std::size_t>(std::min<std::int64_t>(left, std::ssize(bytes))));
  }

  ByteSource& index_;
  const std::int64_t data_bytes_;
  ByteSource& data_;
  WindowedBytes texts_;
  const SalvageSink& sink_;
  IndexHeader header_;
  std::vector<std::uint32_t> offsets_;  // by slot
  std::vector<SlotLine> lines_;         // by offset
  UncountedPart uncounted_;
  std::int64_t emitted_bytes_ = 0;
  SalvageCounts counts_;
};

}  // namespace

SalvageCounts SalvageRecords(ByteSource& index, ByteSource& data, bool with_unindexed, const SalvageSink& sink) {
  return Salvager(index, data, sink).Run(with_unindexed);
}

namespace {

const char kStoreName[] = "store";  // in the private directory

SalvageResult Failed(std::string file, int error) {
  SalvageResult result;
  result.state = SalvageState::kFailed;
  result.error = error;
  result.file = std::move(file);
  return result;
}

// A file of the source. A missing file reads as empty.
struct SourceFile {
  explicit SourceFile(const std::string& name) : path(name), bytes(OpenStoreFile(name, OpenMode::kRead)) {
    open_error = bytes.IsOpen() ? 0 : errno;
  }
  bool IsMissing() const { return open_error == ENOENT; }
  int Error() const { return open_error != 0 && !IsMissing() ? open_error : bytes.Error(); }

  std::string path;
  FileBytes bytes;
  int open_error = 0;
};

// The size of the new ring: the old size if a writer could have chosen it, but at least a slot for every record.
std::uint32_t NewRingSize(ByteSource& index, std::uint64_t records) {
  IndexHeader header = {.maxRecord = 0};
  (void)index.ReadAt(0, &header, sizeof header);
  const bool is_plausible = header.maxRecord >= 1 && header.maxRecord <= kMaxRecordUnlimited;
  const std::uint64_t size = std::max<std::uint64_t>({is_plausible ? header.maxRecord : 1U, records, 1U});
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(size, kMaxRecordUnlimited));
}

std::optional<std::string> ExistingFile(const std::string& base_path) {
  for (const std::string& file : {IndexFileName(base_path), DataFileName(base_path)}) {
    if (faccessat(AT_FDCWD, file.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) return file;
  }
  return std::nullopt;
}

// Writes the records to a new store at `base_path`, whose directory is private.
SalvageResult WriteNewStore(SourceFile& index, SourceFile& data, bool with_unindexed, const std::string& base_path) {
  const auto ignore = [](std::string_view) { return true; };
  const SalvageCounts counted = SalvageRecords(index.bytes, data.bytes, with_unindexed, ignore);
  SalvageResult result;
  result.ring_size = NewRingSize(index.bytes, counted.indexed + counted.unindexed);

  CReportFileBase store;
  const bool is_open = store.Open(base_path.c_str(), result.ring_size);
  const int open_error = errno;
  if (!is_open) return Failed(base_path, open_error);
  int error = store.writePositionsToFile() == 0 ? 0 : errno;
  const auto append = [&store, &error](std::string_view text) {
    if (error != 0) return false;
    if (!store.writeLine(std::string(text).c_str())) error = errno != 0 ? errno : EIO;
    return error == 0;
  };
  result.counts = SalvageRecords(index.bytes, data.bytes, with_unindexed, append);
  if (error == 0 && store.writePositionsToFile() != 0) error = errno;  // writeLine ignores errors of this write
  return error == 0 ? result : Failed(base_path, error);
}

// Renames the new store to `name` next to its private directory: the data file first, so that there is never an index
// file without its data file.
int MoveStoreOut(const PrivateDirectory& directory, const std::string& name) {
  for (const auto& file : {DataFileName, IndexFileName}) {
    if (const int error = SyncName(file(kStoreName), directory.Number())) return error;
  }
  for (const auto& file : {DataFileName, IndexFileName}) {
    const int error = file::RenameWithoutReplacing(file(kStoreName).c_str(), file(name).c_str(), directory.Number(),
                                                   directory.Above());
    if (error == 0) continue;
    const bool is_data_there = file == IndexFileName;
    if (is_data_there) (void)file::Remove(DataFileName(name).c_str(), 0, directory.Above());  // a file of this call
    return error;
  }
  return directory.SyncAbove();
}

}  // namespace

SalvageResult SalvageStore(const std::string& source, const std::string& target, bool with_unindexed) {
  SalvageResult result;
  if (const auto existing = ExistingFile(target)) {
    result.state = SalvageState::kTargetExists;
    result.file = *existing;
    return result;
  }
  SourceFile index(IndexFileName(source));
  SourceFile data(DataFileName(source));
  if (index.IsMissing() && data.IsMissing()) {
    result.state = SalvageState::kNotFound;
    return result;
  }
  for (const SourceFile* const file : {&index, &data}) {
    if (file->Error() != 0) return Failed(file->path, file->Error());
  }
  const PrivateDirectory directory(target + ".salvage-");
  if (directory.Error() != 0) return Failed(directory.Path(), directory.Error());
  result = WriteNewStore(index, data, with_unindexed, PathIn(directory.Path(), kStoreName));
  if (result.state != SalvageState::kDone) return Failed(target, result.error);
  for (const SourceFile* const file : {&index, &data}) {
    if (file->Error() != 0) return Failed(file->path, file->Error());  // a read failed: the result is not complete
  }
  const int error = MoveStoreOut(directory, file::NameOf(target));
  return error == 0 ? result : Failed(target, error);
}

}  // namespace qx::report
