#include "reportfile/tools/StoreExaminer.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "reportfile/RecordEnds.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/FindingList.h"
#include "reportfile/tools/RecordWriter.h"
#include "reportfile/tools/StoreHeaderCheck.h"
#include "reportfile/tools/StoreLines.h"
#include "reportfile/tools/UncountedPart.h"

namespace qx::report {

namespace {

constexpr std::int64_t kRecordBytesMin = kLineEnd.size();
constexpr std::int64_t kMarkerBytes = kEndMarker.size();

bool HasFewerBytesChangedThanKept(std::string_view bytes, std::string_view original) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < std::min(bytes.size(), original.size()); ++i) kept += bytes[i] == original[i] ? 1 : 0;
  return 2 * kept > original.size();
}

// A record that the walk in the order of age finds.
struct WalkedRecord {
  std::uint32_t age;  // 0 is the oldest
  std::uint32_t slot;
  std::uint32_t offset;
  bool is_current;           // written since the data file was last restarted
  bool is_previous;          // written in the round before that
  bool starts_round;         // is at offset 0
  std::uint32_t in_round;    // records before it in its round
  bool is_reported = false;  // its slot is a finding already
};

class Examiner {
 public:
  Examiner(ByteSource& index, ByteSource& data) : index_(index), data_(data), lines_(index, data) {}

  // Only header and sizes: nothing of the data file is read.
  StoreScan ScanHeader() {
    scan_.index_bytes = index_.Size();
    scan_.data_bytes = data_.Size();
    if (ReadHeader()) {
      if (!IsFirstRecordInFlight()) CheckHeaderAndSizes(scan_);
    } else if (scan_.index_bytes != 0) {
      findings_.AddSize("index.size", StoreFile::kIndex, scan_.index_bytes, "the file ends inside the header");
    }
    return std::move(scan_);
  }

  StoreScan Scan() {
    scan_.index_bytes = index_.Size();
    scan_.data_bytes = data_.Size();
    if (!ReadHeader()) {
      CheckStoreWithoutHeader();
    } else if (IsFirstRecordInFlight()) {
      scan_.record_in_flight = true;
    } else {
      CheckStore();
    }
    return std::move(scan_);
  }

 private:
  void CheckStore() {
    CheckHeaderAndSizes(scan_);
    if (!findings_.IsEmpty() || scan_.beyond_offsets) return;
    FindUncounted();
    CheckMarker();
    CheckFreeSlots();
    WalkRecords();
  }

  // --- the header

  bool ReadHeader() {
    IndexHeader header;
    if (index_.ReadAt(0, &header, sizeof header) != sizeof header) return false;
    scan_.header = header;
    return true;
  }

  // Older agents write the slot of the first record before the header. Until the header is written, the 24 bytes before
  // the slot read as zeros.
  bool IsFirstRecordInFlight() {
    constexpr IndexHeader kUnwritten = {.maxRecord = 0};
    return scan_.header == kUnwritten && scan_.index_bytes <= SlotOffset(1) && lines_.SlotAt(0).value_or(0) == 0;
  }

  // --- sizes

  // A new store has two empty files. While its first record is written, the data file may already have this record and
  // a marker. Any other store without a header has lost its index.
  void CheckStoreWithoutHeader() {
    if (scan_.index_bytes == 0 && scan_.data_bytes == 0) return;
    if (scan_.index_bytes == 0 && DataIsOneRecord()) {
      scan_.record_in_flight = true;
      return;
    }
    findings_.AddSize("index.size", StoreFile::kIndex, scan_.index_bytes,
                      "no header, but the data file holds " + std::to_string(scan_.data_bytes) + " bytes");
  }

  bool DataIsOneRecord() {
    const std::int64_t end = lines_.FindLineFeed(0) + 1;
    if (lines_.FindNul(0, end) < end) return false;
    return kEndMarker.starts_with(lines_.At(end, kMarkerBytes));
  }

  // --- what is at writePosition

  // Finds slots that already lead to the next records. In a full ring these slots were those of the oldest records.
  void FindUncounted() {
    uncounted_ = FindUncountedPart(
        scan_.header, [this](std::uint32_t slot) { return lines_.SlotAt(slot); },
        [this](std::uint32_t, std::int64_t begin) { return lines_.EndOfLine(begin); },
        [this](std::int64_t offset) { return lines_.At(offset, kMarkerBytes).starts_with(kEndMarker); });
    scan_.record_in_flight = uncounted_.slots > 0;
  }

  // A slot after those in use belongs to a record that is not counted yet, or was left by a killed writer. Later
  // writers have overwritten texts of killed ones, up to doubtful_end_, and several killed writers leave slots in any
  // order. So below doubtful_end_ such a slot may have any offset, even inside a text. No reader uses these slots, and
  // each is written again before it is in use.
  void CheckFreeSlots() {
    const IndexHeader& header = scan_.header;
    if (header.highestIndex == header.maxRecord) return;
    const auto in_file = static_cast<std::uint32_t>((scan_.index_bytes - SlotOffset(0)) / 4);
    for (std::uint32_t slot = header.highestIndex + uncounted_.slots; slot < in_file && !findings_.IsFull(); ++slot) {
      const std::int64_t offset = lines_.SlotAt(slot).value_or(0);
      const std::int64_t line_end = offset - kRecordBytesMin;  // of the record before it
      const bool is_in_file = offset >= kRecordBytesMin * slot && offset + kRecordBytesMin <= scan_.data_bytes;
      const bool is_overwritten = line_end < doubtful_end_;
      if (is_in_file && (is_overwritten || lines_.At(line_end, kRecordBytesMin).starts_with(kLineEnd))) continue;
      findings_.Add(
          "slot.in-flight", StoreFile::kIndex, SlotOffset(slot), static_cast<std::uint64_t>(offset),
          "a slot after those in use may only lead to a record that is being written, or that a killed writer left");
    }
  }

  // Checks what is at writePosition, and sets doubtful_end_: an indexed text of the previous round that begins before
  // this offset may be overwritten.
  void CheckMarker() {
    const IndexHeader& header = scan_.header;
    const std::int64_t position = header.writePosition;
    const std::string_view there = lines_.At(position, kMarkerBytes).substr(0, kMarkerBytes);
    if (RecordsInRound(header) == 0) {  // just restarted
      doubtful_end_ = DoubtfulEndAfterRestart();
    } else if (there == kEndMarker) {
      doubtful_end_ = EndOfPartAt(position).value_or(position + kMarkerBytes);  // a record may have the marker's text
    } else if (there.size() < kEndMarker.size() && kEndMarker.starts_with(there)) {
      scan_.marker_cut_short = true;
      doubtful_end_ = scan_.data_bytes;
    } else {
      CheckTextAtWritePosition(there);
    }
    if (uncounted_.records > 0) doubtful_end_ = std::max(doubtful_end_, uncounted_.end + kMarkerBytes);
  }

  // After a restart there is no marker at writePosition. A new record is recognised by the marker after it. If this
  // marker is exactly where the marker of the previous round was, only one thing shows that there is a new record: the
  // line end before the oldest record is overwritten.
  std::int64_t DoubtfulEndAfterRestart() {
    if (const auto end = EndOfNewRecordsAt(0)) return *end;
    if (scan_.header.highestIndex == 0) return 0;
    const std::optional<std::uint32_t> oldest = lines_.SlotAt(scan_.header.oldestIndex);
    const std::int64_t line_end = oldest.value_or(0) - kRecordBytesMin;
    const bool is_as_it_was = line_end < 0 || lines_.At(line_end, kRecordBytesMin).starts_with(kLineEnd);
    return is_as_it_was ? 0 : scan_.data_bytes;
  }

  // Handles bytes at writePosition that are not the marker: the next record, whole or cut short, or damage. A new
  // record may end just before the marker of the previous round. So these bytes count as damage only if they resemble a
  // marker, or have a NUL and therefore cannot be text.
  void CheckTextAtWritePosition(std::string_view there) {
    const std::int64_t position = scan_.header.writePosition;
    if (const auto end = EndOfNewRecordsAt(position)) {
      scan_.record_in_flight = true;
      doubtful_end_ = *end;
      return;
    }
    doubtful_end_ = scan_.data_bytes;
    const bool is_at_end = scan_.data_bytes == position + kMarkerBytes;
    const bool is_before_old_text = position < scan_.header.fileEnd;
    const bool is_damaged_marker = (is_at_end || is_before_old_text) && HasFewerBytesChangedThanKept(there, kEndMarker);
    const bool is_text = lines_.FindNul(position, scan_.data_bytes) == scan_.data_bytes;
    const bool has_slots = uncounted_.slots > 0;
    if (has_slots || (is_text && !is_damaged_marker)) {
      scan_.record_cut_short = !has_slots;
      return;
    }
    findings_.Add("data.marker", StoreFile::kData, position, there.empty() ? 0 : static_cast<unsigned char>(there[0]),
                  "neither the end marker nor a new record is at writePosition");
  }

  // The end of the marker after the records at `position` that are not counted yet; unset if there are no such records.
  std::optional<std::int64_t> EndOfNewRecordsAt(std::int64_t position) {
    const std::int64_t line_end = lines_.FindLineEndAndMarker(position);
    if (line_end < 0 || IsEndOfPreviousRound(line_end + kRecordBytesMin)) return std::nullopt;
    const std::int64_t end = line_end + static_cast<std::int64_t>(kLineEndAndMarker.size());
    return std::max(end, EndOfPartAt(position).value_or(end));
  }

  // The end of the last end marker that comes after whole lines at `position`. The lines belong to a part that is not
  // counted yet, or to parts that killed writers left in this round. A line may look like a marker, so the search
  // continues after each marker, for as many lines as a part and the round can have. Only line feeds are searched for:
  // a later marker may have overwritten the CR before a line feed.
  std::optional<std::int64_t> EndOfPartAt(std::int64_t position) {
    const std::uint32_t lines_max = RecordsInPart(scan_.header) + RecordsInRound(scan_.header);
    std::optional<std::int64_t> end;
    std::int64_t at = position;
    for (std::uint32_t lines = 0; lines < lines_max && at - position <= kPartBytesMax; ++lines) {
      const std::int64_t line_feed = lines_.FindLineFeed(at);
      if (!lines_.At(line_feed, 1).starts_with('\n') || IsEndOfPreviousRound(line_feed + 1)) break;
      at = line_feed + 1;
      if (!lines_.At(at, kMarkerBytes).starts_with(kEndMarker)) continue;
      end = at + kMarkerBytes;
      lines = 0;  // the rest of an older text may follow
    }
    return end;
  }

  // True if the marker at `offset` is the one of the previous round, and so not one after new records.
  bool IsEndOfPreviousRound(std::int64_t offset) const {
    return scan_.header.writePosition < scan_.header.fileEnd && offset == scan_.header.fileEnd;
  }

  // --- slots and records

  void WalkRecords() {
    const std::uint32_t in_use = scan_.header.highestIndex;
    std::optional<WalkedRecord> before;
    for (std::uint32_t age = 0; age < in_use && !findings_.IsFull(); ++age) {
      const bool is_replaced = age < uncounted_.slots && in_use == scan_.header.maxRecord;
      if (is_replaced) continue;  // the slot already leads to a new record
      std::optional<WalkedRecord> record = RecordOfAge(age);
      if (!record.has_value()) return;  // the file became shorter while it was read
      record->is_reported = !CheckSlot(*record, before);
      if (before.has_value() && !record->is_reported) CheckText(*before, EndOf(*before, &*record));
      before = record;
    }
    if (before.has_value()) CheckText(*before, EndOf(*before, nullptr));
  }

  std::optional<WalkedRecord> RecordOfAge(std::uint32_t age) {
    const IndexHeader& header = scan_.header;
    const std::uint32_t slot = SlotOfAge(header, age);
    const std::optional<std::uint32_t> offset = lines_.SlotAt(slot);
    if (!offset.has_value()) return std::nullopt;
    const std::uint32_t younger = header.highestIndex - age;  // including itself
    const std::uint32_t period = RecordsPerRound(header);
    const std::uint32_t in_current = RecordsInRound(header);
    const std::uint32_t in_round = RecordsInRound(header, header.elementCount - younger);
    const bool is_current = younger <= in_current;
    const bool is_previous = !is_current && (period == 0 || younger - in_current <= period);
    return WalkedRecord{age, slot, *offset, is_current, is_previous, in_round == 0, in_round};
  }

  // The end of the texts of the record's round: writePosition, or the end of the previous round. Unset if the end of
  // that round is not known, because newer text has overwritten it.
  std::optional<std::int64_t> EndOfRound(const WalkedRecord& record) const {
    const IndexHeader& header = scan_.header;
    if (record.is_current) return header.writePosition;
    const bool is_known = record.is_previous && header.fileEnd > header.writePosition;
    return is_known ? std::optional<std::int64_t>(header.fileEnd) : std::nullopt;
  }

  bool CheckSlot(const WalkedRecord& record, const std::optional<WalkedRecord>& before) {
    if (record.starts_round) {
      if (record.offset == 0) return true;
      AddSlotFinding("slot.round-start", record, "the data file was restarted with this record, so it is at 0");
      return false;
    }
    const std::int64_t end = EndOfRound(record).value_or(scan_.data_bytes);
    if (record.offset + kRecordBytesMin > end) {
      AddSlotFinding("slot.outside", record, "the text of its round ends at " + std::to_string(end));
      return false;
    }
    const std::int64_t lowest = before.has_value() && before->age + 1 == record.age ? before->offset + kRecordBytesMin
                                                                                    : kRecordBytesMin * record.in_round;
    if (record.offset < lowest) {
      AddSlotFinding("slot.order", record, "the record before it reaches to " + std::to_string(lowest) + " at least");
      return false;
    }
    return before.has_value() || FollowsALineEnd(record);
  }

  // True if a line end is before the record, or if this cannot be known. Used only for the first record of the walk;
  // each other record is checked against the one before it.
  bool FollowsALineEnd(const WalkedRecord& record) {
    const std::int64_t line_end = record.offset - kRecordBytesMin;
    if (!record.is_current && (!record.is_previous || line_end < doubtful_end_)) return true;
    if (lines_.At(line_end, kRecordBytesMin).starts_with(kLineEnd)) return true;
    AddSlotFinding("slot.inside", record, "no record ends there, so none begins");
    return false;
  }

  std::optional<std::int64_t> EndOf(const WalkedRecord& record, const WalkedRecord* next) const {
    if (next != nullptr && !next->starts_round) return next->offset;
    return EndOfRound(record);
  }

  // Checks that the record ends with CR LF where the next one begins, and has no NUL: a writer ends each text before
  // its first NUL.
  void CheckText(const WalkedRecord& record, std::optional<std::int64_t> end) {
    if (record.is_reported) return;
    const bool may_be_overwritten = !record.is_current && (!record.is_previous || record.offset < doubtful_end_);
    if (may_be_overwritten || !end.has_value()) {
      ++scan_.overwritten_records;
      return;
    }
    const std::int64_t begin = record.offset;
    const std::int64_t text_end = *end - kRecordBytesMin;
    if (text_end < begin) return;  // slots out of order, which are reported already
    const std::string_view line_end = lines_.At(text_end, kRecordBytesMin).substr(0, kRecordBytesMin);
    if (line_end != kLineEnd) {
      findings_.Add("record.end", StoreFile::kData, text_end,
                    line_end.empty() ? 0 : static_cast<unsigned char>(line_end[0]),
                    "the record of slot " + std::to_string(record.slot) + " does not end with CR LF here");
      return;
    }
    CheckTextBytes(record, begin, text_end);
  }

  void CheckTextBytes(const WalkedRecord& record, std::int64_t begin, std::int64_t end) {
    bool is_cut = false;
    for (std::int64_t at = begin; at < end;) {
      const std::string_view bytes = lines_.TextAt(at, end);
      if (bytes.empty()) return;  // the file became shorter while it was read
      const std::size_t nul = bytes.find('\0');
      if (nul != std::string_view::npos) {
        findings_.Add("record.nul", StoreFile::kData, at + static_cast<std::int64_t>(nul), 0,
                      "the record of slot " + std::to_string(record.slot) + " holds a NUL");
        return;
      }
      is_cut = is_cut || FindTextEnd(bytes) != bytes.size();
      at += static_cast<std::int64_t>(bytes.size());
    }
    scan_.cut_records += is_cut ? 1 : 0;
  }

  // --- reading

  void AddSlotFinding(std::string_view rule, const WalkedRecord& record, std::string explanation) {
    findings_.Add(rule, StoreFile::kIndex, SlotOffset(record.slot), record.offset,
                  "slot " + std::to_string(record.slot) + ": " + std::move(explanation));
  }

  ByteSource& index_;
  ByteSource& data_;
  StoreLines lines_;
  StoreScan scan_;
  FindingList findings_{scan_.findings};
  UncountedPart uncounted_;
  std::int64_t doubtful_end_ = 0;
};

}  // namespace

StoreScan ScanStore(ByteSource& index, ByteSource& data) { return Examiner(index, data).Scan(); }

StoreScan ScanHeader(ByteSource& index, ByteSource& data) { return Examiner(index, data).ScanHeader(); }

}  // namespace qx::report
