// Reads the records of an open store through large windows: what moves a report, where readLine fetches one record.
//
// Slots are read some thousands at a time. Where they rise, the records that they name stand one behind the other in
// the data file; such a run is read at once, searched once, and taken whole if every record ends where the next begins
// and nowhere sooner. Anything else (a line feed inside a record, a NUL, a byte 0xFF, slots out of order, overlapping
// records, a short file) is taken record by record out of the same window. The results are those of readLine for each
// slot in turn; how the slots stand is only a hint where to look.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

class CReportFileBase;

namespace qx::report {

// Why Take stopped: all that were asked for are taken; the next record does not fit; the next slot is not in use, or
// the store is not open (readLine would return false).
enum class TakeEnd { kCountReached, kChunkFull, kReadFailed };

struct TakenRecords {
  std::uint32_t count;
  TakeEnd end;
};

// A reader over one store.
//
// Threads: one reader belongs to one thread; each call holds the store's lock.
// Owns: the windows, about 100 KiB whatever the files contain, allocated at the first read. Borrows the store, which
// must outlive it.
// Freshness: sees the files as they stand at its construction or later; the windows are kept until Drop.
class RecordReader {
 public:
  explicit RecordReader(CReportFileBase& store);
  ~RecordReader();
  RecordReader(const RecordReader&) = delete;
  RecordReader& operator=(const RecordReader&) = delete;

  // Appends to `out` the text that readLine would give for `slot`, if it is shorter than `bytes_max`; otherwise sets
  // `too_long`, appends nothing and stops reading as soon as that is certain. False as readLine: nothing is appended
  // and `too_long` is false. [owning thread]
  [[nodiscard]] bool Read(std::uint32_t slot, std::size_t bytes_max, std::string* out, bool* too_long);

  // Appends the records of `first_slot` and the slots behind it, at most `count_max` of them, as long as out->size()
  // with the record is less than `gathered_max`. Slots do not wrap around: the caller splits at the ring's end. A slot
  // that cannot be read comes before a record that does not fit. [owning thread]
  [[nodiscard]] TakenRecords Take(std::uint32_t first_slot, std::uint32_t count_max, std::size_t gathered_max,
                                  std::string* out);

  // Whether what was taken or read since the construction may hold a "]": on the way it costs nothing to know that
  // there is none, and who puts the texts in a CDATA section need not search them. [owning thread]
  [[nodiscard]] bool MayHaveTakenBracket() const { return may_have_taken_bracket_; }

  // Forgets the windows, as must be done after the store was reopened. [owning thread]
  void Drop();

 private:
  struct Windows;

  Windows& LoadedWindows();
  std::span<const std::uint32_t> OffsetsFrom(std::uint32_t slot, std::uint32_t wanted);
  std::string_view BytesAt(std::int64_t offset, std::size_t wanted);
  std::string_view BytesCovering(std::int64_t offset, std::size_t size);
  bool AppendRecordAt(std::uint32_t offset, std::size_t bytes_max, std::string* out);
  std::uint32_t TakeUpTo(std::uint32_t first_slot, std::uint32_t count, std::size_t gathered_max, std::string* out);
  bool HoldsWholeRecords(std::string_view bytes, std::span<const std::uint32_t> offsets);
  bool TakeWhole(std::span<const std::uint32_t> offsets, std::string* out);
  bool ReadWhole(std::span<const std::uint32_t> offsets, std::string* out);
  std::uint32_t TakeSingly(std::span<const std::uint32_t> offsets, std::size_t gathered_max, std::string* out);
  std::uint32_t TakeUnreadableSlots(std::uint32_t count, std::size_t gathered_max, std::string* out);

  CReportFileBase& store_;
  std::unique_ptr<Windows> windows_;
  bool may_have_taken_bracket_ = false;
};

}  // namespace qx::report
