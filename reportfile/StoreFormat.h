// Defines the format of a report's two files and the arithmetic of their positions; docs/report-store.md describes the
// format for other programs.
//
// The data file has record lines ("text\r
// ") one after another, with an end marker after the newest. The index file has a 24-byte header and then one 32-bit
// data file offset for each slot; the slots form a ring. No function here opens a file.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace qx::report {

// After a record's text, the data file has the record's line end. After the newest record it has the end marker as
// well: nothing newer follows. The next record overwrites the marker.
inline constexpr std::string_view kLineEnd = "\r\n";
inline constexpr std::string_view kEndMarker = "===>\r\n";
inline constexpr std::string_view kLineEndAndMarker = "\r\n===>\r\n";

inline constexpr std::uint32_t kMaxRecordDefault = 10000;
inline constexpr std::uint32_t kMaxRecordUnlimited = 0x3FFFFFFF;

// The header of the index file, byte for byte, in the byte order of the host. The default values are those of a new
// CReportFileBase.
struct IndexHeader {
  std::uint32_t writePosition = 0;  // data file offset of the end marker, where the next record is written
  std::uint32_t fileEnd = 0;        // end of the text at the last restart, or a higher writePosition since then
  std::uint32_t elementCount = 0;   // records ever written, modulo 2^32
  std::uint32_t maxRecord = kMaxRecordDefault;  // slots in the ring
  std::uint32_t highestIndex = 0;               // slots in use: grows to maxRecord and stays there
  std::uint32_t oldestIndex = 0;                // slot of the oldest record once all slots are in use, 0 before

  friend bool operator==(const IndexHeader&, const IndexHeader&) = default;
};

static_assert(std::endian::native == std::endian::little, "report files of other hosts have the other byte order");
static_assert(std::is_trivially_copyable_v<IndexHeader> && std::is_standard_layout_v<IndexHeader>);
static_assert(sizeof(IndexHeader) == 24);
static_assert(offsetof(IndexHeader, writePosition) == 0);
static_assert(offsetof(IndexHeader, fileEnd) == 4);
static_assert(offsetof(IndexHeader, elementCount) == 8);
static_assert(offsetof(IndexHeader, maxRecord) == 12);
static_assert(offsetof(IndexHeader, highestIndex) == 16);
static_assert(offsetof(IndexHeader, oldestIndex) == 20);

// "/data/r1" => "/data/r1.ind" and "/data/r1.dat"
inline std::string IndexFileName(std::string_view base_path) { return std::string(base_path) + ".ind"; }
inline std::string DataFileName(std::string_view base_path) { return std::string(base_path) + ".dat"; }

// Where a slot is in the index file. Computed in 64 bits, because the slot number of a damaged header must not wrap
// back into the header's bytes.
//   slot 0           => 24
//   slot 0xFFFFFFFF  => 0x400000014
constexpr std::int64_t SlotOffset(std::uint32_t slot) {
  return std::int64_t{sizeof(IndexHeader)} + std::int64_t{4} * slot;
}

// The ring size of a new store. A request for 0 slots means the largest ring of the format.
constexpr std::uint32_t RingSize(std::uint32_t max_records) {
  return max_records != 0 ? max_records : kMaxRecordUnlimited;
}

// The slot of the record with the age `logical`; 0 is the oldest. For a damaged header with maxRecord 0, the result is
// the sum of `logical` and oldestIndex.
//   4 slots, oldestIndex 2, logical 0  => slot 2
//   4 slots, oldestIndex 2, logical 2  => slot 0
constexpr std::uint32_t SlotOfLogical(const IndexHeader& header, std::uint32_t logical) {
  const std::uint32_t slot = logical + header.oldestIndex;
  return header.maxRecord != 0 ? slot % header.maxRecord : slot;
}

// SlotOfLogical in 64 bits, for a plausible header: in a ring of more than 2^31 slots the 32-bit sum would wrap.
constexpr std::uint32_t SlotOfAge(const IndexHeader& header, std::uint32_t age) {
  return static_cast<std::uint32_t>((std::uint64_t{age} + header.oldestIndex) % header.maxRecord);
}

// True if a writer can have left such a header, as far as its three fields of the ring show. The ring has at least one
// slot then.
constexpr bool HasPlausibleRing(const IndexHeader& header) {
  return header.maxRecord != 0 && header.highestIndex <= header.maxRecord && header.oldestIndex < header.maxRecord;
}

// The slot of the next record: a free one first; in a full ring, that of the oldest record.
//   3 slots, 2 used                    => slot 2
//   3 slots, all used, oldestIndex 1   => slot 1
constexpr std::uint32_t SlotForNewRecord(const IndexHeader& header) {
  return header.highestIndex < header.maxRecord ? header.highestIndex : header.oldestIndex;
}

// Counts a new record in the slot of SlotForNewRecord: one more slot is in use, or the oldest index advances. If
// `records` is more than 1, the records must be one part (RecordsInPart).
constexpr void AdvanceRing(IndexHeader& header, std::uint32_t records = 1) {
  if (header.highestIndex < header.maxRecord) {
    header.highestIndex += records;
    return;
  }
  const std::uint32_t next = header.oldestIndex + records;
  header.oldestIndex = next < header.maxRecord ? next : 0;
}

// The low 32 bits: the offsets of the format have no more, however large the file is.
constexpr std::uint32_t Low32(std::int64_t offset) { return static_cast<std::uint32_t>(offset); }

// The offset of the end marker after a record of `text_bytes` at `record_offset`.
constexpr std::int64_t MarkerOffset(std::uint32_t record_offset, std::size_t text_bytes) {
  return std::int64_t{record_offset} + static_cast<std::int64_t>(text_bytes + kLineEnd.size());
}

// The number of records in a round: from one restart of the data file to the next. It has 32 bits; 0 (for a ring of
// 2^31 slots, or a damaged header) means that the data file never restarts.
//   3 slots     => 6
//   2^31 slots  => 0
constexpr std::uint32_t RecordsPerRound(const IndexHeader& header) { return 2 * header.maxRecord; }

// The number of records of the last round among the first `count` records, for the ring size of `header`.
//   3 slots, count 5   => 5
//   3 slots, count 6   => 0
//   3 slots, count 13  => 1
constexpr std::uint32_t RecordsInRound(const IndexHeader& header, std::uint32_t count) {
  const std::uint32_t period = RecordsPerRound(header);
  return period != 0 ? count % period : count;
}

// The number of records of the last round among all written records.
constexpr std::uint32_t RecordsInRound(const IndexHeader& header) {
  return RecordsInRound(header, header.elementCount);
}

// Quirk: the data file restarts after a round, whatever the length of the records. So longer records of the next round
// can overwrite texts that slots still lead to.
constexpr bool DataFileRestarts(const IndexHeader& header) {
  return RecordsPerRound(header) != 0 && RecordsInRound(header) == 0;
}

// Makes the next record go to the start of the data file. After it, the rest of older records stays in the file.
constexpr void RestartDataFile(IndexHeader& header) {
  header.fileEnd = header.writePosition;
  header.writePosition = 0;
}

// The largest number of next records that can be one part: their slots are neighbours, and the data file does not
// restart between them. Such records can be appended at once. At least 1; for a header that is not plausible always 1.
//   5 slots, 3 used                     => 2, then the ring wraps
//   5 slots, all used, oldestIndex 1    => 4
//   5 slots, all used, 9 records so far => 1, then the data file restarts
constexpr std::uint32_t RecordsInPart(const IndexHeader& header) {
  constexpr std::uint32_t kAny = 0xFFFFFFFF;
  if (!HasPlausibleRing(header)) return 1;
  const std::uint32_t to_ring_end = header.maxRecord - SlotForNewRecord(header);
  const std::uint32_t period = RecordsPerRound(header);
  const std::uint32_t to_restart = period != 0 ? period - RecordsInRound(header) : kAny;
  const std::uint32_t to_count_wrap = header.elementCount != 0 ? 0 - header.elementCount : kAny;
  const std::uint32_t to_end = to_ring_end < to_restart ? to_ring_end : to_restart;
  return to_end < to_count_wrap ? to_end : to_count_wrap;
}

// The header after the next `records` records, which must be one part; the end marker after them is at `marker_offset`.
constexpr IndexHeader HeaderAfterRecords(IndexHeader header, std::uint32_t records, std::int64_t marker_offset) {
  AdvanceRing(header, records);
  header.writePosition = Low32(marker_offset);
  if (header.fileEnd < header.writePosition) header.fileEnd = header.writePosition;
  header.elementCount += records;
  if (DataFileRestarts(header)) RestartDataFile(header);
  return header;
}

}  // namespace qx::report
