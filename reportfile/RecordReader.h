// Reads the records of an open store through large windows. A transfer of a report uses this; readLine reads one
// record.
//
// Slots are read some thousands at a time. As long as their offsets rise, the records follow one another in the data
// file. Such a run of records is read at once and searched once. It is taken whole if every record ends where the next
// one begins, and not before. In all other cases (a line feed inside a record, a NUL, a byte 0xFF, slots out of order,
// overlapping records, a short file) records are taken one by one from the window. The next offset is only a hint at
// where a record ends: the results are those of readLine for each slot.
//
// A writer may be at work. It replaces a slot before it overwrites the text that the slot named, so a text is whole if
// its slot is the same before and after the text was read. Slots are therefore read again after the texts. If one has
// changed, the texts since the last check are dropped, and their records are read one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <string_view>

class CReportFileBase;

namespace qx::report {

// Appends the text of the record in `slot` to `out` if it is shorter than `bytes_max`, without any window: it reads the
// slot, the text, and the slot again, until both reads of the slot agree, but at most three times. The text of the
// third time is taken even if they do not agree. Returns 0, or the error number of the read that failed; `out` is then
// unchanged and `too_long` is false. If the text is not shorter, `too_long` is set and nothing is appended; reading
// stops as soon as that is certain. [any thread]
[[nodiscard]] int ReadRecord(std::FILE* index_file, std::FILE* data_file, std::uint32_t slot, std::size_t bytes_max,
                             std::string* out, bool* too_long);

// Appends the text at offset `at` of an open data file, whether or not a slot leads there. `bytes_max`, `too_long` and
// the result are as for ReadRecord. [any thread]
[[nodiscard]] int ReadTextAt(int data_file, std::int64_t at, std::size_t bytes_max, std::string* out, bool* too_long);

// Why Take stopped, in this order: all requested records are taken; enough text is taken; the next record does not fit;
// the next record cannot be read (its slot is not in use, the store is not open, or the system reports an error).
enum class TakeEnd { kCountReached, kEnough, kChunkFull, kReadFailed };

struct TakenRecords {
  std::uint32_t count;
  TakeEnd end;
};

// The limits of Take.
struct TakeLimits {
  static constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();

  std::uint32_t count_max;                // records
  std::size_t gathered_max;               // out->size() stays below this
  std::size_t enough_bytes = kUnlimited;  // Take ends after the record that completes this much text
};

// A reader over one store.
//
// Threads: one reader belongs to one thread; each call holds the store's lock.
// Owns: the windows, about 100 KiB whatever the files contain, allocated at the first Take. Borrows the store, which
// must outlive it.
// Failure: if filling a window fails with an error of the system, Take reads the next record singly, without a window.
// If this fails as well, Take stops before the record, and Error returns the error number.
// Freshness: Take sees the files as they are at its construction or later; the windows are kept until Drop.
class RecordReader {
 public:
  explicit RecordReader(CReportFileBase& store);
  ~RecordReader();
  RecordReader(const RecordReader&) = delete;
  RecordReader& operator=(const RecordReader&) = delete;

  // Reads the record in `slot` with ReadRecord. False if the slot is not in use, the store is not open, or the system
  // reports an error; then nothing is appended, and `too_long` is false. [owning thread]
  [[nodiscard]] bool Read(std::uint32_t slot, std::size_t bytes_max, std::string* out, bool* too_long);

  // Appends the records of `first_slot` and the slots after it, up to the limits. Slots do not wrap around: the caller
  // splits at the end of the ring. If the next slot is not in use, Take ends with kReadFailed, even if `out` is full.
  // [owning thread]
  [[nodiscard]] TakenRecords Take(std::uint32_t first_slot, const TakeLimits& limits, std::string* out);

  // Reads the offsets in `first_slot` and the slots after it. A slot that cannot be read whole reads as 0. Returns 0 or
  // the error number. [owning thread]
  [[nodiscard]] int ReadSlots(std::uint32_t first_slot, std::span<std::uint32_t> offsets);

  // The error number of the system, if that is why the last Read or Take could not read a record; otherwise 0.
  // [owning thread]
  [[nodiscard]] int Error() const { return error_; }

  // False if nothing that was taken or read since the construction contains a "]". The pass that finds the text ends
  // notices this at no cost, so the texts need not be searched again when they are put into a CDATA section. [owning
  // thread]
  [[nodiscard]] bool MayHaveTakenBracket() const { return may_have_taken_bracket_; }

  // Empties the windows. Necessary after the store was reopened. [owning thread]
  void Drop();

 private:
  struct Windows;
  // Whether the record at an offset was taken from the data window, or why not.
  enum class Piece { kTaken, kTooLong, kUnreadable };
  // Records of neighbouring slots that were taken without a check of their slots.
  struct Batch {
    std::uint32_t count = 0;       // records taken
    Piece next = Piece::kTaken;    // if not kTaken: why the record after them was not taken
    bool ends_in_no_text = false;  // the last slot has offset 0, and the record there has no text
  };

  Windows& LoadedWindows();
  std::span<const std::uint32_t> OffsetsFrom(std::uint32_t slot, std::uint32_t requested);
  std::string_view BytesAt(std::int64_t offset, std::size_t requested);
  std::string_view BytesCovering(std::int64_t offset, std::size_t size);

  TakenRecords TakeReadable(std::uint32_t first_slot, const TakeLimits& limits, std::string* out);
  TakenRecords TakeChecked(std::uint32_t first_slot, const TakeLimits& limits, std::string* out);
  TakenRecords TakeSingly(std::uint32_t first_slot, std::uint32_t count, const TakeLimits& limits, std::string* out);
  TakenRecords TakeMissingSlots(std::uint32_t first_slot, const TakeLimits& limits, std::string* out);
  bool ReadSingly(std::uint32_t slot, std::size_t bytes_max, std::string* out, bool* too_long);
  bool SlotIsMissing(std::uint32_t slot) const;
  std::uint32_t EmptySlotsFrom(std::uint32_t slot) const;
  bool AreSlotsUnchanged(std::uint32_t first_slot, std::span<const std::uint32_t> offsets);

  Batch TakeBatch(std::span<const std::uint32_t> offsets, const TakeLimits& limits, std::string* out);
  bool HoldsWholeRecords(std::string_view bytes, std::span<const std::uint32_t> offsets);
  bool AppendWhole(std::span<const std::uint32_t> offsets, std::string* out);
  bool ReadWhole(std::span<const std::uint32_t> offsets, std::string* out);
  bool CopyThroughWindow(std::int64_t offset, char* to, std::size_t size);
  Batch AppendEach(std::span<const std::uint32_t> offsets, std::size_t gathered_max, std::string* out);
  Batch AppendEqual(std::span<const std::uint32_t> offsets, std::size_t gathered_max, std::string* out);
  Piece AppendRecordAt(std::uint32_t offset, std::size_t bytes_max, std::string* out);

  CReportFileBase& store_;
  std::unique_ptr<Windows> windows_;
  bool may_have_taken_bracket_ = false;
  int error_ = 0;
};

}  // namespace qx::report
