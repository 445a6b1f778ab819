#include "reportfile/RecordReader.h"

#include <algorithm>

#include "base/CriticalSection.h"
#include "reportfile/RecordEnds.h"
#include "reportfile/ReportFileBase.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/StoreIo.h"

namespace qx::report {

namespace {

// Together below the size from which allocators map memory afresh: touching fresh pages costs more than copying them.
constexpr std::size_t kDataWindowBytes = std::size_t{64} * 1024;
constexpr std::size_t kSlotWindowSlots = 8192;

// What is read at least when nothing tells how long a record is, or how many slots will be asked for next.
constexpr std::size_t kRecordGuessBytes = 4096;
constexpr std::size_t kSlotGuessSlots = 256;

// A run of at least this many bytes is read where it is wanted; a shorter one may well stand in the window.
constexpr std::size_t kDirectRunBytesMin = kRecordGuessBytes;

// How many records at the front of `offsets` stand one behind the other, by their slots, in at most `bytes_max`. The
// last offset only ends its predecessor.
//   0 10 20 30, bytes_max 100  => 3
//   0 10 20 30, bytes_max 25   => 2
//   0 10 5 15                  => 1
std::size_t RisingRecords(std::span<const std::uint32_t> offsets, std::size_t bytes_max) {
  std::size_t count = 0;
  while (count + 1 < offsets.size() && offsets[count + 1] > offsets[count] &&
         offsets[count + 1] - offsets.front() <= bytes_max) {
    ++count;
  }
  return count;
}

// How much of `gathered_max` is left; a record's text must be shorter than that.
std::size_t RoomIn(const std::string& out, std::size_t gathered_max) {
  return gathered_max > out.size() ? gathered_max - out.size() : 0;
}

std::size_t LongestThatFits(const std::string& out, std::size_t gathered_max) {
  const std::size_t room = RoomIn(out, gathered_max);
  return room != 0 ? room - 1 : 0;
}

}  // namespace

struct RecordReader::Windows {
  std::uint32_t first_slot;
  std::uint32_t slot_count;
  std::int64_t data_offset;
  std::size_t data_size;
  std::uint32_t slots[kSlotWindowSlots];
  char data[kDataWindowBytes];

  void Forget() {
    first_slot = slot_count = 0;
    data_offset = 0;
    data_size = 0;
  }

  void LoadSlots(std::FILE* index_file, std::uint32_t slot, std::size_t wanted) {
    const std::size_t slots_max = std::clamp(wanted, kSlotGuessSlots, kSlotWindowSlots);
    first_slot = slot;
    const std::size_t bytes = ReadAt(index_file, SlotOffset(slot), slots, slots_max * sizeof slots[0]).bytes;
    slot_count = static_cast<std::uint32_t>(bytes / sizeof slots[0]);
  }

  void LoadData(std::FILE* data_file, std::int64_t offset, std::size_t wanted) {
    data_offset = offset;
    data_size = ReadAt(data_file, offset, data, std::min(wanted, kDataWindowBytes)).bytes;
  }

  [[nodiscard]] std::string_view HeldAt(std::int64_t offset) const {
    const std::string_view held(data, data_size);
    const std::int64_t skipped = offset - data_offset;
    if (skipped < 0 || static_cast<std::size_t>(skipped) > data_size) return {};
    return held.substr(static_cast<std::size_t>(skipped));
  }
};

RecordReader::RecordReader(CReportFileBase& store) : store_(store) {}
RecordReader::~RecordReader() = default;

void RecordReader::Drop() {
  if (windows_ != nullptr) windows_->Forget();
}

RecordReader::Windows& RecordReader::LoadedWindows() {
  if (windows_ == nullptr) {
    windows_ = std::make_unique_for_overwrite<Windows>();
    windows_->Forget();
  }
  return *windows_;
}

bool RecordReader::Read(std::uint32_t slot, std::size_t bytes_max, std::string* out, bool* too_long) {
  const LockScope scope(store_.lock_);
  *too_long = false;
  if (!store_.IsOpen() || slot >= store_.header_.highestIndex) return false;
  const std::span<const std::uint32_t> offsets = OffsetsFrom(slot, 1);
  *too_long = !AppendRecordAt(offsets.empty() ? 0 : offsets.front(), bytes_max, out);
  return true;
}

TakenRecords RecordReader::Take(std::uint32_t first_slot, std::uint32_t count_max, std::size_t gathered_max,
                                std::string* out) {
  const LockScope scope(store_.lock_);
  const std::uint32_t highest = store_.IsOpen() ? store_.header_.highestIndex : 0;
  const std::uint32_t readable = first_slot < highest ? std::min(count_max, highest - first_slot) : 0;
  const std::uint32_t taken = TakeUpTo(first_slot, readable, gathered_max, out);
  if (taken == count_max) return {taken, TakeEnd::kCountReached};
  return {taken, taken < readable ? TakeEnd::kChunkFull : TakeEnd::kReadFailed};
}

// Takes `count` records, all of them readable; fewer only if the next one does not fit.
std::uint32_t RecordReader::TakeUpTo(std::uint32_t first_slot, std::uint32_t count, std::size_t gathered_max,
                                     std::string* out) {
  std::uint32_t taken = 0;
  while (taken < count) {
    const std::uint32_t wanted = count - taken;
    const std::span<const std::uint32_t> offsets = OffsetsFrom(first_slot + taken, wanted);
    if (offsets.empty()) return taken + TakeUnreadableSlots(wanted, gathered_max, out);

    const std::size_t run = RisingRecords(offsets, std::min(LongestThatFits(*out, gathered_max), kDataWindowBytes));
    if (run > 0 && TakeWhole(offsets.first(run + 1), out)) {
      taken += static_cast<std::uint32_t>(run);
      continue;
    }
    const std::size_t singles = std::max(run, std::size_t{1});
    const std::uint32_t fitting = TakeSingly(offsets.first(singles), gathered_max, out);
    taken += fitting;
    if (fitting < singles) break;
  }
  return taken;
}

// Whether `bytes` is the texts of the records at `offsets`, whole and without an exception: each ends with a line feed
// where the next begins, and there are no more text ends than records. The last offset only ends its predecessor.
bool RecordReader::HoldsWholeRecords(std::string_view bytes, std::span<const std::uint32_t> offsets) {
  if (bytes.empty()) return false;
  for (const std::uint32_t next : offsets.subspan(1)) {
    if (bytes[next - offsets.front() - 1] != '\n') return false;
  }
  const std::size_t records = offsets.size() - 1;
  if (!may_have_taken_bracket_ && CountTextEndsAndBrackets(bytes) == records) return true;
  may_have_taken_bracket_ = true;
  return CountTextEnds(bytes) == records;
}

// Takes the run of records between `offsets` if it stands there as a whole and holds no exception.
bool RecordReader::TakeWhole(std::span<const std::uint32_t> offsets, std::string* out) {
  const std::size_t size = offsets.back() - offsets.front();
  if (size >= kDirectRunBytesMin) return ReadWhole(offsets, out);
  const std::string_view bytes = BytesCovering(offsets.front(), size);
  if (!HoldsWholeRecords(bytes, offsets)) return false;
  out->append(bytes);
  return true;
}

// The same for a long run, which is read straight behind what `out` holds.
bool RecordReader::ReadWhole(std::span<const std::uint32_t> offsets, std::string* out) {
  const std::size_t size_before = out->size();
  const std::size_t size = offsets.back() - offsets.front();
  out->resize(size_before + size);
  char* const to = out->data() + size_before;
  const std::size_t bytes = ReadAt(store_.data_file_, offsets.front(), to, size).bytes;
  if (bytes == size && HoldsWholeRecords({to, size}, offsets)) return true;
  out->resize(size_before);
  return false;
}

// Takes the records at `offsets` one by one, up to the first that does not fit.
std::uint32_t RecordReader::TakeSingly(std::span<const std::uint32_t> offsets, std::size_t gathered_max,
                                       std::string* out) {
  if (offsets.size() > 1) (void)BytesCovering(offsets.front(), offsets.back() - offsets.front());  // in one read
  std::uint32_t taken = 0;
  for (const std::uint32_t offset : offsets) {
    if (!AppendRecordAt(offset, RoomIn(*out, gathered_max), out)) break;
    ++taken;
  }
  return taken;
}

// Slots beyond the end of the index file all read as offset 0. A header that claims billions of them must not keep the
// caller busy: where that one record has no text, every one of them is taken at once.
std::uint32_t RecordReader::TakeUnreadableSlots(std::uint32_t count, std::size_t gathered_max, std::string* out) {
  for (std::uint32_t taken = 0; taken < count; ++taken) {
    const std::size_t size_before = out->size();
    if (!AppendRecordAt(0, RoomIn(*out, gathered_max), out)) return taken;
    if (out->size() == size_before) return count;
  }
  return count;
}

// Appends the record at `offset` if its text is shorter than `bytes_max`; reads no further than to know that it is not.
bool RecordReader::AppendRecordAt(std::uint32_t offset, std::size_t bytes_max, std::string* out) {
  const std::size_t size_before = out->size();
  std::int64_t at = offset;
  for (std::size_t wanted = kRecordGuessBytes;; wanted = kDataWindowBytes) {
    const std::string_view bytes = BytesAt(at, wanted);
    const RecordPiece piece = PieceOf(bytes.empty() ? kEndOfFile : bytes);
    if (out->size() - size_before + piece.text_bytes >= bytes_max) {
      out->resize(size_before);
      return false;
    }
    const std::string_view text = (bytes.empty() ? kEndOfFile : bytes).substr(0, piece.text_bytes);
    out->append(text);
    may_have_taken_bracket_ = may_have_taken_bracket_ || text.find(']') != std::string_view::npos;
    if (piece.is_last) return true;
    at += static_cast<std::int64_t>(piece.text_bytes);
  }
}

// The data file offsets in `slot` and the slots behind it, at most `wanted`; none if the index file ends before `slot`.
std::span<const std::uint32_t> RecordReader::OffsetsFrom(std::uint32_t slot, std::uint32_t wanted) {
  Windows& windows = LoadedWindows();
  if (slot < windows.first_slot || slot - windows.first_slot >= windows.slot_count)
    windows.LoadSlots(store_.index_file_, slot, wanted);
  const std::size_t skipped = slot - windows.first_slot;
  const std::size_t held = windows.slot_count - skipped;
  return {windows.slots + skipped, std::min<std::size_t>(held, wanted)};
}

// The bytes at `offset` that the window holds; after a read of about `wanted` bytes if it holds none. Empty at the end
// of the file.
std::string_view RecordReader::BytesAt(std::int64_t offset, std::size_t wanted) {
  Windows& windows = LoadedWindows();
  if (windows.HeldAt(offset).empty()) windows.LoadData(store_.data_file_, offset, wanted);
  return windows.HeldAt(offset);
}

// The `size` bytes at `offset`, at most a window; empty if the file does not hold all of them.
std::string_view RecordReader::BytesCovering(std::int64_t offset, std::size_t size) {
  Windows& windows = LoadedWindows();
  if (windows.HeldAt(offset).size() < size) windows.LoadData(store_.data_file_, offset, size + kRecordGuessBytes);
  const std::string_view held = windows.HeldAt(offset);
  return held.size() < size ? std::string_view() : held.substr(0, size);
}

}  // namespace qx::report
