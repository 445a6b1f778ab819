#include "reportfile/RecordReader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/CriticalSection.h"
#include "reportfile/RecordEnds.h"
#include "reportfile/ReportFileBase.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/StoreIo.h"

namespace qx::report {

namespace {

// Together the windows are smaller than a block for which an allocator maps new pages. The first use of such pages
// costs more than the copying of the records.
constexpr std::size_t kDataWindowBytes = std::size_t{64} * 1024;
constexpr std::size_t kSlotWindowSlots = 8192;
constexpr std::size_t kCheckedSlots = 4096;

// The least that is read at once, because the length of the next record, or the number of slots that will be requested,
// is unknown.
constexpr std::size_t kRecordGuessBytes = 4096;
constexpr std::size_t kSlotGuessSlots = 256;

// A run of at least this many bytes is read directly into the caller's text; a shorter one is taken from the window.
constexpr std::size_t kDirectRunBytesMin = kRecordGuessBytes;

// A run is at most this long, so that it stays in the processor's caches. A batch ends, and its slots are checked,
// after three quarters of this length; so most long runs are a batch of their own.
constexpr std::size_t kRunBytesMax = std::size_t{256} * 1024;
constexpr std::size_t kBatchBytes = kRunBytesMax / 4 * 3;

constexpr int kSingleReadsMax = 3;

// The number of records at the front of `offsets` whose offsets rise, within at most `bytes_max` bytes. The last offset
// only marks the end of the record before it.
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

// True if the kernel is slow when it copies from this offset of the file to this address: some processors (family 25 of
// AMD) take six times as long if the target's offset in its page is one to fifteen bytes greater than the source's
// offset in its page.
bool CopiesSlowly(std::int64_t file_offset, const char* to) {
  constexpr std::uintptr_t kPageBytes = 4096;
  const std::uintptr_t ahead =
      (reinterpret_cast<std::uintptr_t>(to) - static_cast<std::uintptr_t>(file_offset)) % kPageBytes;
  return ahead >= 1 && ahead <= 15;
}

//   7 7 7 5  => 3
std::size_t EqualAtFront(std::span<const std::uint32_t> offsets) {
  const auto differs = [first = offsets.front()](std::uint32_t offset) { return offset != first; };
  return static_cast<std::size_t>(std::find_if(offsets.begin(), offsets.end(), differs) - offsets.begin());
}

// The number of bytes left below `gathered_max`. A record fits if its text is shorter.
std::size_t SpaceIn(const std::string& out, std::size_t gathered_max) {
  return gathered_max > out.size() ? gathered_max - out.size() : 0;
}

std::size_t LongestThatFits(const std::string& out, std::size_t gathered_max) {
  const std::size_t space = SpaceIn(out, gathered_max);
  return space != 0 ? space - 1 : 0;
}

// Reads the offset in `slot`; a slot that cannot be read whole reads as 0. Returns 0 or the error number.
int ReadSlot(std::FILE* index_file, std::uint32_t slot, std::uint32_t* offset) {
  std::uint32_t read = 0;
  const file::Progress progress = ReadAt(index_file, SlotOffset(slot), &read, sizeof read);
  *offset = progress.bytes == sizeof read ? read : 0;
  return progress.error;
}

}  // namespace

int ReadTextAt(int data_file, std::int64_t at, std::size_t bytes_max, std::string* out, bool* too_long) {
  const std::size_t size_before = out->size();
  for (std::size_t requested = kRecordGuessBytes;; requested = kDataWindowBytes) {
    const std::size_t size = out->size();
    out->resize(size + requested);
    const file::Progress progress = file::ReadAt(data_file, at, out->data() + size, requested);
    if (progress.bytes == 0 && progress.Failed()) {
      out->resize(size_before);
      return progress.error;
    }
    if (progress.bytes == 0) (*out)[size] = kEndOfFile.front();
    const std::size_t held = std::max(progress.bytes, kEndOfFile.size());
    const RecordPiece piece = PieceOf({out->data() + size, held});
    out->resize(size + piece.text_bytes);
    *too_long = out->size() - size_before >= bytes_max;
    if (*too_long) out->resize(size_before);
    if (*too_long || piece.is_last) return 0;
    at += static_cast<std::int64_t>(piece.text_bytes);
  }
}

int ReadRecord(std::FILE* index_file, std::FILE* data_file, std::uint32_t slot, std::size_t bytes_max, std::string* out,
               bool* too_long) {
  const std::size_t size_before = out->size();
  *too_long = false;
  std::uint32_t offset = 0;
  int error = ReadSlot(index_file, slot, &offset);
  for (int reads = 1; error == 0; ++reads) {
    error = ReadTextAt(fileno(data_file), offset, bytes_max, out, too_long);
    std::uint32_t offset_now = 0;
    if (error == 0) error = ReadSlot(index_file, slot, &offset_now);
    if (error == 0 && (offset_now == offset || reads == kSingleReadsMax)) return 0;
    out->resize(size_before);
    offset = offset_now;
  }
  *too_long = false;
  return error;
}

struct RecordReader::Windows {
  std::uint32_t first_slot;
  std::uint32_t slot_count;
  int slots_error;  // why there is no slot in the window; 0: the index file ends there
  int data_error;   // why there are no bytes in the data window; 0: the data file ends there
  std::int64_t data_offset;
  std::size_t data_size;
  std::uint32_t slots[kSlotWindowSlots];
  std::uint32_t checked_slots[kCheckedSlots];
  char data[kDataWindowBytes];

  void Forget() {
    first_slot = slot_count = 0;
    slots_error = data_error = 0;
    ForgetData();
  }

  void ForgetData() {
    data_offset = 0;
    data_size = 0;
  }

  // A text is used only if it was read after its slot, so new slots empty the data window.
  void LoadSlots(std::FILE* index_file, std::uint32_t slot, std::size_t requested) {
    const std::size_t slots_max = std::clamp(requested, kSlotGuessSlots, kSlotWindowSlots);
    const file::Progress progress = ReadAt(index_file, SlotOffset(slot), slots, slots_max * sizeof slots[0]);
    first_slot = slot;
    slot_count = static_cast<std::uint32_t>(progress.bytes / sizeof slots[0]);
    slots_error = progress.error;
    ForgetData();
  }

  void LoadData(std::FILE* data_file, std::int64_t offset, std::size_t requested) {
    const file::Progress progress = ReadAt(data_file, offset, data, std::min(requested, kDataWindowBytes));
    data_offset = offset;
    data_size = progress.bytes;
    data_error = progress.error;
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
  error_ = 0;
  if (!store_.IsOpen() || slot >= store_.header_.highestIndex) return false;
  return ReadSingly(slot, bytes_max, out, too_long);
}

bool RecordReader::ReadSingly(std::uint32_t slot, std::size_t bytes_max, std::string* out, bool* too_long) {
  const std::size_t size_before = out->size();
  error_ = ReadRecord(store_.index_file_, store_.data_file_, slot, bytes_max, out, too_long);
  may_have_taken_bracket_ = may_have_taken_bracket_ || out->find(']', size_before) != std::string::npos;
  return error_ == 0;
}

int RecordReader::ReadSlots(std::uint32_t first_slot, std::span<std::uint32_t> offsets) {
  const LockScope scope(store_.lock_);
  if (!store_.IsOpen()) return EBADF;
  const file::Progress progress =
      ReadAt(store_.index_file_, SlotOffset(first_slot), offsets.data(), offsets.size_bytes());
  for (std::uint32_t& missing : offsets.subspan(progress.bytes / sizeof offsets[0])) missing = 0;
  return progress.error;
}

TakenRecords RecordReader::Take(std::uint32_t first_slot, const TakeLimits& limits, std::string* out) {
  const LockScope scope(store_.lock_);
  error_ = 0;
  const std::uint32_t highest = store_.IsOpen() ? store_.header_.highestIndex : 0;
  TakeLimits readable = limits;
  readable.count_max = first_slot < highest ? std::min(limits.count_max, highest - first_slot) : 0;
  const TakenRecords taken = TakeReadable(first_slot, readable, out);
  const bool is_all = taken.end != TakeEnd::kCountReached || taken.count == limits.count_max;
  return is_all ? taken : TakenRecords{taken.count, TakeEnd::kReadFailed};
}

// Takes records of slots that are all in use.
TakenRecords RecordReader::TakeReadable(std::uint32_t first_slot, const TakeLimits& limits, std::string* out) {
  const std::size_t size_before = out->size();
  TakeLimits left = limits;
  std::uint32_t taken = 0;
  while (taken < limits.count_max) {
    const TakenRecords more = TakeChecked(first_slot + taken, left, out);
    taken += more.count;
    left.count_max -= more.count;
    if (more.end != TakeEnd::kCountReached) return {taken, more.end};
    const std::size_t gathered = out->size() - size_before;
    if (gathered >= limits.enough_bytes && taken < limits.count_max) return {taken, TakeEnd::kEnough};
    left.enough_bytes = limits.enough_bytes - std::min(gathered, limits.enough_bytes);
  }
  return {taken, TakeEnd::kCountReached};
}

// Takes at least one record of slots that are all in use, unless it reports another end than kCountReached. With
// kCountReached there may be more to take.
TakenRecords RecordReader::TakeChecked(std::uint32_t first_slot, const TakeLimits& limits, std::string* out) {
  const std::span<const std::uint32_t> offsets = OffsetsFrom(first_slot, limits.count_max);
  if (offsets.empty()) {
    if (windows_->slots_error != 0) return TakeSingly(first_slot, 1, limits, out);
    return TakeMissingSlots(first_slot, limits, out);
  }
  const std::size_t size_before = out->size();
  const Batch batch = TakeBatch(offsets, limits, out);
  const std::size_t seen = batch.count + (batch.next != Piece::kTaken ? 1U : 0U);
  if (!AreSlotsUnchanged(first_slot, offsets.first(seen))) {
    out->resize(size_before);
    Drop();
    return TakeSingly(first_slot, static_cast<std::uint32_t>(seen), limits, out);
  }
  if (batch.next == Piece::kTooLong) return {batch.count, TakeEnd::kChunkFull};
  if (batch.next == Piece::kUnreadable) {
    const TakenRecords single = TakeSingly(first_slot + batch.count, 1, limits, out);
    return {batch.count + single.count, single.end};
  }
  if (!batch.ends_in_no_text) return {batch.count, TakeEnd::kCountReached};
  const std::uint32_t in_hole = EmptySlotsFrom(first_slot + batch.count);
  return {batch.count + std::min(in_hole, limits.count_max - batch.count), TakeEnd::kCountReached};
}

// Takes `count` records without the windows.
TakenRecords RecordReader::TakeSingly(std::uint32_t first_slot, std::uint32_t count, const TakeLimits& limits,
                                      std::string* out) {
  const std::size_t size_before = out->size();
  for (std::uint32_t taken = 0; taken < count; ++taken) {
    bool too_long = false;
    const std::size_t space = SpaceIn(*out, limits.gathered_max);
    if (!ReadSingly(first_slot + taken, space, out, &too_long)) return {taken, TakeEnd::kReadFailed};
    if (too_long) return {taken, TakeEnd::kChunkFull};
    if (out->size() - size_before >= limits.enough_bytes) return {taken + 1, TakeEnd::kCountReached};
  }
  return {count, TakeEnd::kCountReached};
}

// Takes records of slots after the end of the index file; all of these read as offset 0. A header may claim billions of
// them. So if the record at offset 0 has no text, all of them are taken at once.
TakenRecords RecordReader::TakeMissingSlots(std::uint32_t first_slot, const TakeLimits& limits, std::string* out) {
  const std::size_t size_before = out->size();
  std::uint32_t taken = 0;
  Piece next = Piece::kTaken;
  while (taken < limits.count_max && out->size() - size_before < limits.enough_bytes) {
    const std::size_t size = out->size();
    next = AppendRecordAt(0, SpaceIn(*out, limits.gathered_max), out);
    if (next != Piece::kTaken) break;
    taken = out->size() == size ? limits.count_max : taken + 1;
  }
  if (!SlotIsMissing(first_slot)) {
    out->resize(size_before);
    Drop();
    return TakeSingly(first_slot, 1, limits, out);
  }
  if (next == Piece::kTooLong) return {taken, TakeEnd::kChunkFull};
  if (next == Piece::kTaken) return {taken, TakeEnd::kCountReached};
  const TakenRecords single = TakeSingly(first_slot + taken, 1, limits, out);
  return {taken + single.count, single.end};
}

bool RecordReader::SlotIsMissing(std::uint32_t slot) const {
  std::uint32_t offset = 0;
  const file::Progress progress = ReadAt(store_.index_file_, SlotOffset(slot), &offset, sizeof offset);
  return !progress.Failed() && progress.bytes < sizeof offset;
}

// The number of slots from `slot` on that are in a hole of the index file, or after its end. They all read as offset 0:
// a small file can claim billions of them. The result is 0 if the file system does not report holes. The call moves the
// position of the descriptor, which nothing uses.
std::uint32_t RecordReader::EmptySlotsFrom(std::uint32_t slot) const {
  constexpr std::int64_t kAll = std::numeric_limits<std::uint32_t>::max();
  const std::int64_t at = SlotOffset(slot);
  const std::int64_t data_at = lseek(fileno(store_.index_file_), at, SEEK_DATA);
  if (data_at < 0) return errno == ENXIO ? static_cast<std::uint32_t>(kAll) : 0;
  return static_cast<std::uint32_t>(std::min((data_at - at) / std::int64_t{sizeof slot}, kAll));
}

// True if a new read of the slots from `first_slot` on returns these offsets.
bool RecordReader::AreSlotsUnchanged(std::uint32_t first_slot, std::span<const std::uint32_t> offsets) {
  std::uint32_t* const now = windows_->checked_slots;
  while (!offsets.empty()) {
    const std::span<const std::uint32_t> part = offsets.first(std::min(offsets.size(), kCheckedSlots));
    const file::Progress progress = ReadAt(store_.index_file_, SlotOffset(first_slot), now, part.size_bytes());
    if (progress.bytes < part.size_bytes() || !std::equal(part.begin(), part.end(), now)) return false;
    offsets = offsets.subspan(part.size());
    first_slot += static_cast<std::uint32_t>(part.size());
  }
  return true;
}

// Takes records until there is enough text for a check of the slots.
RecordReader::Batch RecordReader::TakeBatch(std::span<const std::uint32_t> offsets, const TakeLimits& limits,
                                            std::string* out) {
  const std::size_t size_before = out->size();
  const std::size_t bytes_max = std::min(kBatchBytes, limits.enough_bytes);
  Batch batch;
  while (batch.next == Piece::kTaken && batch.count < offsets.size() && out->size() - size_before < bytes_max) {
    const std::size_t gathered = out->size() - size_before;
    const std::size_t run_bytes_max = std::min(kRunBytesMax, limits.enough_bytes - gathered);
    const std::span<const std::uint32_t> rest = offsets.subspan(batch.count);
    const std::size_t run = RisingRecords(rest, std::min(LongestThatFits(*out, limits.gathered_max), run_bytes_max));
    if (run > 0 && AppendWhole(rest.first(run + 1), out)) {
      batch.count += static_cast<std::uint32_t>(run);
      continue;
    }
    const Batch more =
        run > 0 ? AppendEach(rest.first(run), limits.gathered_max, out) : AppendEqual(rest, limits.gathered_max, out);
    batch = {batch.count + more.count, more.next, more.ends_in_no_text};
  }
  return batch;
}

// True if `bytes` consists of the whole texts of the records at `offsets`: each ends with a line feed where the next
// one begins, and there are no more text ends than records. The last offset only marks the end of the record before it.
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

// Takes the run of records between `offsets` if the file has all its bytes, and every record of it ends where the next
// one begins.
bool RecordReader::AppendWhole(std::span<const std::uint32_t> offsets, std::string* out) {
  const std::size_t size = offsets.back() - offsets.front();
  if (size >= kDirectRunBytesMin) return ReadWhole(offsets, out);
  const std::string_view bytes = BytesCovering(offsets.front(), size);
  if (!HoldsWholeRecords(bytes, offsets)) return false;
  out->append(bytes);
  return true;
}

// AppendWhole for a long run, which is read directly to the end of `out`. The new bytes are not filled with zeros
// first.
bool RecordReader::ReadWhole(std::span<const std::uint32_t> offsets, std::string* out) {
  const std::size_t size_before = out->size();
  const std::size_t size = offsets.back() - offsets.front();
  out->resize_and_overwrite(size_before + size, [&](char* text, std::size_t) noexcept {
    char* const to = text + size_before;
    const bool is_read = CopiesSlowly(offsets.front(), to)
                             ? CopyThroughWindow(offsets.front(), to, size)
                             : ReadAt(store_.data_file_, offsets.front(), to, size).bytes == size;
    const bool is_whole = is_read && HoldsWholeRecords({to, size}, offsets);
    return is_whole ? size_before + size : size_before;
  });
  return out->size() > size_before;
}

// Reads `size` bytes into the window, part by part, and copies them. False if the file does not have all of them.
bool RecordReader::CopyThroughWindow(std::int64_t offset, char* to, std::size_t size) {
  Windows& windows = *windows_;
  for (std::size_t done = 0; done < size; done += windows.data_size) {
    windows.LoadData(store_.data_file_, offset + static_cast<std::int64_t>(done), size - done);
    if (windows.data_size == 0) return false;
    std::memcpy(to + done, windows.data, windows.data_size);
  }
  return true;
}

// Takes the records at rising `offsets` one by one, up to the first that cannot be taken.
RecordReader::Batch RecordReader::AppendEach(std::span<const std::uint32_t> offsets, std::size_t gathered_max,
                                             std::string* out) {
  if (offsets.size() > 1) (void)BytesCovering(offsets.front(), offsets.back() - offsets.front());  // in one read
  Batch batch;
  for (const std::uint32_t offset : offsets) {
    batch.next = AppendRecordAt(offset, SpaceIn(*out, gathered_max), out);
    if (batch.next != Piece::kTaken) break;
    ++batch.count;
  }
  return batch;
}

// Takes the record at the first of `offsets`. If this record has no text, the next records with the same offset have
// none either, and are taken with it.
RecordReader::Batch RecordReader::AppendEqual(std::span<const std::uint32_t> offsets, std::size_t gathered_max,
                                              std::string* out) {
  const std::size_t size_before = out->size();
  const Piece next = AppendRecordAt(offsets.front(), SpaceIn(*out, gathered_max), out);
  if (next != Piece::kTaken) return {.count = 0, .next = next};
  if (out->size() > size_before) return {.count = 1};
  const std::size_t count = EqualAtFront(offsets);
  return {.count = static_cast<std::uint32_t>(count),
          .ends_in_no_text = offsets.front() == 0 && count == offsets.size()};
}

// Appends the record at `offset` if its text is shorter than `bytes_max`. A longer text is read only until it is
// certain that it is longer.
RecordReader::Piece RecordReader::AppendRecordAt(std::uint32_t offset, std::size_t bytes_max, std::string* out) {
  const std::size_t size_before = out->size();
  std::int64_t at = offset;
  for (std::size_t requested = kRecordGuessBytes;; requested = kDataWindowBytes) {
    const std::string_view held = BytesAt(at, requested);
    const bool is_unreadable = held.empty() && windows_->data_error != 0;
    const std::string_view bytes = held.empty() ? kEndOfFile : held;
    const RecordPiece piece = PieceOf(bytes);
    const bool is_too_long = out->size() - size_before + piece.text_bytes >= bytes_max;
    if (is_unreadable || is_too_long) {
      out->resize(size_before);
      return is_unreadable ? Piece::kUnreadable : Piece::kTooLong;
    }
    const std::string_view text = bytes.substr(0, piece.text_bytes);
    out->append(text);
    may_have_taken_bracket_ = may_have_taken_bracket_ || text.find(']') != std::string_view::npos;
    if (piece.is_last) return Piece::kTaken;
    at += static_cast<std::int64_t>(piece.text_bytes);
  }
}

// The data file offsets in `slot` and the slots after it, at most `requested`. Empty if the index file ends before
// `slot` or cannot be read there.
std::span<const std::uint32_t> RecordReader::OffsetsFrom(std::uint32_t slot, std::uint32_t requested) {
  Windows& windows = LoadedWindows();
  if (slot < windows.first_slot || slot - windows.first_slot >= windows.slot_count)
    windows.LoadSlots(store_.index_file_, slot, requested);
  const std::size_t skipped = slot - windows.first_slot;
  const std::size_t held = windows.slot_count - skipped;
  return {windows.slots + skipped, std::min<std::size_t>(held, requested)};
}

// The bytes that the window has from `offset` on. If it has none, about `requested` bytes are read into it first. Empty
// at the end of the file, and if the file cannot be read there.
std::string_view RecordReader::BytesAt(std::int64_t offset, std::size_t requested) {
  Windows& windows = LoadedWindows();
  if (windows.HeldAt(offset).empty()) windows.LoadData(store_.data_file_, offset, requested);
  return windows.HeldAt(offset);
}

// The `size` bytes at `offset`, at most a window; empty if not all of them can be read.
std::string_view RecordReader::BytesCovering(std::int64_t offset, std::size_t size) {
  Windows& windows = LoadedWindows();
  if (windows.HeldAt(offset).size() < size) windows.LoadData(store_.data_file_, offset, size + kRecordGuessBytes);
  const std::string_view held = windows.HeldAt(offset);
  return held.size() < size ? std::string_view() : held.substr(0, size);
}

}  // namespace qx::report
