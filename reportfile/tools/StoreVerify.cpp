#include "reportfile/tools/StoreVerify.h"

#include <ctime>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include "reportfile/RecordEnds.h"
#include "reportfile/StoreIo.h"
#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/RecordWriter.h"
#include "reportfile/tools/UncountedPart.h"

namespace qx::report {

namespace {

constexpr std::int64_t kOffsetLimit = std::int64_t{1} << 32;
constexpr std::int64_t kRecordBytesMin = kLineEnd.size();
constexpr std::int64_t kMarkerBytes = kEndMarker.size();

// More rounds of the 32-bit count than any machine can write.
constexpr std::uint64_t kCountWrapsMax = 4;

std::int64_t OffsetInHeader(std::size_t member) { return static_cast<std::int64_t>(member); }

bool HasFewerBytesChangedThanKept(std::string_view bytes, std::string_view original) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < std::min(bytes.size(), original.size()); ++i) kept += bytes[i] == original[i] ? 1 : 0;
  return 2 * kept > original.size();
}

// A record by its slot, as the walk in age order finds it.
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
  Examiner(ByteSource& index, ByteSource& data) : index_(index), data_(data), slots_(index), texts_(data) {}

  // Only header and sizes: nothing of the data file is read.
  StoreScan ScanHeader() {
    scan_.index_bytes = index_.Size();
    scan_.data_bytes = data_.Size();
    if (ReadHeader()) {
      if (!IsFirstRecordInFlight()) CheckHeaderAndSizes();
    } else if (scan_.index_bytes != 0) {
      AddSizeFinding("index.size", StoreFile::kIndex, scan_.index_bytes, "the file ends inside the header");
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
  void CheckHeaderAndSizes() {
    scan_.beyond_offsets = scan_.data_bytes > kOffsetLimit;
    CheckRing();
    if (!scan_.findings.empty()) return;  // with such a header nothing else can be checked
    CheckPositions();
    CheckSizes();
  }

  void CheckStore() {
    CheckHeaderAndSizes();
    if (!scan_.findings.empty() || scan_.beyond_offsets) return;
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

  // The first record's slot is written before any header, after 24 bytes that are not written yet.
  bool IsFirstRecordInFlight() {
    constexpr IndexHeader kUnwritten = {.maxRecord = 0};
    return scan_.header == kUnwritten && scan_.index_bytes <= SlotOffset(1) && SlotAt(0).value_or(0) == 0;
  }

  void CheckRing() {
    const IndexHeader& header = scan_.header;
    if (header.maxRecord == 0) {
      AddHeaderFinding("header.ring-size", offsetof(IndexHeader, maxRecord), header.maxRecord, "the ring has no slots");
    } else if (header.highestIndex > header.maxRecord) {
      AddHeaderFinding("header.slots-in-use", offsetof(IndexHeader, highestIndex), header.highestIndex,
                       "more slots in use than the ring has, " + std::to_string(header.maxRecord));
    } else if (header.highestIndex < header.maxRecord) {
      CheckFillingRing();
    } else {
      CheckFullRing();
    }
  }

  void CheckFillingRing() {
    const IndexHeader& header = scan_.header;
    if (header.oldestIndex != 0) {
      AddHeaderFinding("header.oldest", offsetof(IndexHeader, oldestIndex), header.oldestIndex,
                       "the oldest record of a ring that still fills is in slot 0");
    }
    if (header.elementCount != header.highestIndex) {
      AddHeaderFinding("header.count", offsetof(IndexHeader, elementCount), header.elementCount,
                       "a ring that still fills has as many slots in use as records were written, here " +
                           std::to_string(header.highestIndex));
    }
  }

  void CheckFullRing() {
    const IndexHeader& header = scan_.header;
    if (header.oldestIndex >= header.maxRecord) {
      AddHeaderFinding("header.oldest", offsetof(IndexHeader, oldestIndex), header.oldestIndex,
                       "not a slot of a ring of " + std::to_string(header.maxRecord));
      return;
    }
    for (std::uint64_t wraps = 0; wraps <= kCountWrapsMax; ++wraps) {
      const std::uint64_t written = header.elementCount + wraps * (std::uint64_t{1} << 32);
      if (written < header.maxRecord || written % header.maxRecord != header.oldestIndex) continue;
      scan_.count_wrapped = wraps > 0;
      return;
    }
    AddHeaderFinding("header.count", offsetof(IndexHeader, elementCount), header.elementCount,
                     "after so many records the oldest one is not in slot " + std::to_string(header.oldestIndex));
  }

  void CheckPositions() {
    const IndexHeader& header = scan_.header;
    if (scan_.beyond_offsets) return;  // both are cut to 32 bits
    const std::uint32_t in_round = RecordsInRound(header);
    const bool is_too_low = header.writePosition < kRecordBytesMin * in_round;
    if (is_too_low || (in_round == 0 && header.writePosition != 0)) {
      AddHeaderFinding("header.write-position", offsetof(IndexHeader, writePosition), header.writePosition,
                       std::to_string(in_round) + " records were written since the data file was restarted");
    }
    const bool was_never_restarted = header.highestIndex < header.maxRecord && in_round == header.elementCount;
    if (header.fileEnd < header.writePosition || (was_never_restarted && header.fileEnd != header.writePosition)) {
      AddHeaderFinding("header.file-end", offsetof(IndexHeader, fileEnd), header.fileEnd,
                       "writePosition is " + std::to_string(header.writePosition));
    }
  }

  // --- sizes

  void CheckSizes() {
    const IndexHeader& header = scan_.header;
    const std::int64_t expected = SlotOffset(header.highestIndex);
    if (scan_.index_bytes < expected || scan_.index_bytes > SlotOffset(header.maxRecord)) {
      AddSizeFinding("index.size", StoreFile::kIndex, scan_.index_bytes,
                     std::to_string(header.highestIndex) + " slots in use end at " + std::to_string(expected));
    }
    if (scan_.data_bytes < header.fileEnd) {
      AddSizeFinding("data.size", StoreFile::kData, scan_.data_bytes,
                     "text was written up to " + std::to_string(header.fileEnd));
    }
  }

  // A store that was created and never written has two empty files; before its first record is counted, one record and
  // a marker in the data file. Anything else has lost its index.
  void CheckStoreWithoutHeader() {
    if (scan_.index_bytes == 0 && scan_.data_bytes == 0) return;
    if (scan_.index_bytes == 0 && DataIsOneRecord()) {
      scan_.record_in_flight = true;
      return;
    }
    AddSizeFinding("index.size", StoreFile::kIndex, scan_.index_bytes,
                   "no header, but the data file holds " + std::to_string(scan_.data_bytes) + " bytes");
  }

  bool DataIsOneRecord() {
    const std::int64_t end = FindLineFeed(0) + 1;
    if (FindNul(0, end) < end) return false;
    return kEndMarker.starts_with(texts_.At(end, kMarkerBytes));
  }

  // --- what is at writePosition

  // The slots of the next records already have their offsets. In a full ring those were the oldest records' slots.
  void FindUncounted() {
    uncounted_ = FindUncountedPart(
        scan_.header, [this](std::uint32_t slot) { return SlotAt(slot); },
        [this](std::uint32_t, std::int64_t begin) { return EndOfLine(begin); },
        [this](std::int64_t offset) { return texts_.At(offset, kMarkerBytes).starts_with(kEndMarker); });
    scan_.record_in_flight = uncounted_.slots > 0;
  }

  // Slots after those in use are of records that are not counted yet, or of a killed writer whose texts the next one
  // has overwritten since, from writePosition to doubtful_end_.
  void CheckFreeSlots() {
    const IndexHeader& header = scan_.header;
    if (header.highestIndex == header.maxRecord) return;
    const auto in_file = static_cast<std::uint32_t>((scan_.index_bytes - SlotOffset(0)) / 4);
    for (std::uint32_t slot = header.highestIndex + uncounted_.slots; slot < in_file && !IsFull(); ++slot) {
      const std::int64_t offset = SlotAt(slot).value_or(0);
      const std::int64_t line_end = offset - kRecordBytesMin;  // of the record before it
      const bool is_in_file = offset >= kRecordBytesMin * slot && offset + kRecordBytesMin <= scan_.data_bytes;
      const bool is_overwritten = line_end < doubtful_end_;
      if (is_in_file && (is_overwritten || texts_.At(line_end, kRecordBytesMin).starts_with(kLineEnd))) continue;
      Add("slot.in-flight", StoreFile::kIndex, SlotOffset(slot), static_cast<std::uint64_t>(offset),
          "a slot after those in use may only lead to a record that is being written, or that a killed writer left");
    }
  }

  // Sets doubtful_end_: indexed text of an earlier round before it may be overwritten.
  void CheckMarker() {
    const IndexHeader& header = scan_.header;
    const std::int64_t position = header.writePosition;
    const std::string_view there = texts_.At(position, kMarkerBytes).substr(0, kMarkerBytes);
    if (RecordsInRound(header) == 0) {  // just restarted
      doubtful_end_ = DoubtfulEndAfterRestart();
    } else if (there == kEndMarker) {
      doubtful_end_ = EndOfPartAt(position).value_or(position + kMarkerBytes);  // a record may look like the marker
    } else if (there.size() < kEndMarker.size() && kEndMarker.starts_with(there)) {
      scan_.marker_cut_short = true;
      doubtful_end_ = scan_.data_bytes;
    } else {
      CheckTextAtWritePosition(there);
    }
    if (uncounted_.records > 0) doubtful_end_ = std::max(doubtful_end_, uncounted_.end + kMarkerBytes);
  }

  // After a restart there is no marker at the new beginning: a new record can only be recognised by its own marker, or,
  // if that covers the old one, by the text before the oldest record.
  std::int64_t DoubtfulEndAfterRestart() {
    if (const auto end = EndOfNewRecordsAt(0)) return *end;
    if (scan_.header.highestIndex == 0) return 0;
    const std::optional<std::uint32_t> oldest = SlotAt(scan_.header.oldestIndex);
    const std::int64_t line_end = oldest.value_or(0) - kRecordBytesMin;
    const bool is_as_it_was = line_end < 0 || texts_.At(line_end, kRecordBytesMin).starts_with(kLineEnd);
    return is_as_it_was ? 0 : scan_.data_bytes;
  }

  // Instead of the marker there is something else: the next record, whole or cut short, or damage. A new record may end
  // just before the marker of the previous round, so only bytes that resemble a marker, or cannot be text, are damage.
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
    const bool is_text = FindNul(position, scan_.data_bytes) == scan_.data_bytes;
    const bool has_slots = uncounted_.slots > 0;
    if (has_slots || (is_text && !is_damaged_marker)) {
      scan_.record_cut_short = !has_slots;
      return;
    }
    Add("data.marker", StoreFile::kData, position, there.empty() ? 0 : static_cast<unsigned char>(there[0]),
        "neither the end marker nor a new record is at writePosition");
  }

  // The end of the marker after the records at `position` that are not counted yet.
  std::optional<std::int64_t> EndOfNewRecordsAt(std::int64_t position) {
    const std::int64_t line_end = FindLineEndAndMarker(position);
    if (line_end < 0 || IsEndOfPreviousRound(line_end + kRecordBytesMin)) return std::nullopt;
    const std::int64_t end = line_end + static_cast<std::int64_t>(kLineEndAndMarker.size());
    return std::max(end, EndOfPartAt(position).value_or(end));
  }

  // The same for a part of whole lines, of which some may look like the marker: the last marker that it can have.
  std::optional<std::int64_t> EndOfPartAt(std::int64_t position) {
    std::optional<std::int64_t> end;
    std::int64_t at = position;
    for (std::uint32_t left = RecordsInPart(scan_.header); left > 0 && at - position <= kPartBytesMax; --left) {
      const std::optional<std::int64_t> line_end = EndOfLine(at);
      if (!line_end.has_value() || IsEndOfPreviousRound(*line_end)) break;
      at = *line_end;
      if (texts_.At(at, kMarkerBytes).starts_with(kEndMarker)) end = at + kMarkerBytes;
    }
    return end;
  }

  // The marker of the previous round is there: it is not the one after new records.
  bool IsEndOfPreviousRound(std::int64_t offset) const {
    return scan_.header.writePosition < scan_.header.fileEnd && offset == scan_.header.fileEnd;
  }

  // --- slots and records

  void WalkRecords() {
    const std::uint32_t in_use = scan_.header.highestIndex;
    std::optional<WalkedRecord> before;
    for (std::uint32_t age = 0; age < in_use && !IsFull(); ++age) {
      const bool is_replaced = age < uncounted_.slots && in_use == scan_.header.maxRecord;
      if (is_replaced) continue;  // a new record, not the oldest one
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
    const std::optional<std::uint32_t> offset = SlotAt(slot);
    if (!offset.has_value()) return std::nullopt;
    const std::uint32_t younger = header.highestIndex - age;  // including itself
    const std::uint32_t period = RecordsPerRound(header);
    const std::uint32_t in_current = RecordsInRound(header);
    const std::uint32_t in_round = RecordsInRound(header, header.elementCount - younger);
    const bool is_current = younger <= in_current;
    const bool is_previous = !is_current && (period == 0 || younger - in_current <= period);
    return WalkedRecord{age, slot, *offset, is_current, is_previous, in_round == 0, in_round};
  }

  // The end of the text of the record's round: writePosition, or the end of the previous round. Unset: overwritten
  // since.
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

  // For the first record of the walk; the others follow the one before them.
  bool FollowsALineEnd(const WalkedRecord& record) {
    const std::int64_t line_end = record.offset - kRecordBytesMin;
    if (!record.is_current && (!record.is_previous || line_end < doubtful_end_)) return true;
    if (texts_.At(line_end, kRecordBytesMin).starts_with(kLineEnd)) return true;
    AddSlotFinding("slot.inside", record, "no record ends there, so none begins");
    return false;
  }

  std::optional<std::int64_t> EndOf(const WalkedRecord& record, const WalkedRecord* next) const {
    if (next != nullptr && !next->starts_round) return next->offset;
    return EndOfRound(record);
  }

  // A record ends with CR LF where the next one begins, and has no NUL: a writer's texts end at their first NUL.
  void CheckText(const WalkedRecord& record, std::optional<std::int64_t> end) {
    if (record.is_reported) return;
    const bool may_be_overwritten = !record.is_current && (!record.is_previous || record.offset < doubtful_end_);
    if (may_be_overwritten || !end.has_value()) {
      ++scan_.overwritten_records;
      return;
    }
    const std::int64_t begin = record.offset;
    const std::int64_t text_end = *end - kRecordBytesMin;
    if (text_end < begin) return;  // the slots are out of order there, which is reported already
    const std::string_view line_end = texts_.At(text_end, kRecordBytesMin).substr(0, kRecordBytesMin);
    if (line_end != kLineEnd) {
      Add("record.end", StoreFile::kData, text_end, line_end.empty() ? 0 : static_cast<unsigned char>(line_end[0]),
          "the record of slot " + std::to_string(record.slot) + " does not end with CR LF here");
      return;
    }
    CheckTextBytes(record, begin, text_end);
  }

  void CheckTextBytes(const WalkedRecord& record, std::int64_t begin, std::int64_t end) {
    bool is_cut = false;
    for (std::int64_t at = begin; at < end;) {
      const std::string_view bytes = TextAt(at, end);
      if (bytes.empty()) return;  // the file became shorter while it was read
      const std::size_t nul = bytes.find('\0');
      if (nul != std::string_view::npos) {
        Add("record.nul", StoreFile::kData, at + static_cast<std::int64_t>(nul), 0,
            "the record of slot " + std::to_string(record.slot) + " holds a NUL");
        return;
      }
      is_cut = is_cut || FindTextEnd(bytes) != bytes.size();
      at += static_cast<std::int64_t>(bytes.size());
    }
    scan_.cut_records += is_cut ? 1 : 0;
  }

  // --- reading

  std::optional<std::uint32_t> SlotAt(std::uint32_t slot) {
    const std::string_view bytes = slots_.At(SlotOffset(slot), sizeof(std::uint32_t));
    std::uint32_t offset = 0;
    if (bytes.size() < sizeof offset) return std::nullopt;
    std::memcpy(&offset, bytes.data(), sizeof offset);
    return offset;
  }

  // Some of the text in [at, end), at least a byte unless the file ends there.
  std::string_view TextAt(std::int64_t at, std::int64_t end) {
    const std::string_view bytes = texts_.At(at);
    return bytes.substr(0, static_cast<std::size_t>(std::min<std::int64_t>(end - at, std::ssize(bytes))));
  }

  // The offset of the first NUL in [at, end), or `end`.
  std::int64_t FindNul(std::int64_t at, std::int64_t end) {
    while (at < end) {
      const std::string_view bytes = TextAt(at, end);
      if (bytes.empty()) return end;
      const std::size_t nul = bytes.find('\0');
      if (nul != std::string_view::npos) return at + static_cast<std::int64_t>(nul);
      at += static_cast<std::int64_t>(bytes.size());
    }
    return end;
  }

  // The offset of the first line feed or NUL from `at` on, or the end of the file.
  std::int64_t FindLineFeed(std::int64_t at) {
    for (std::string_view bytes = texts_.At(at); !bytes.empty(); bytes = texts_.At(at)) {
      const std::size_t found = bytes.find_first_of(std::string_view("\n\0", 2));
      if (found != std::string_view::npos) return at + static_cast<std::int64_t>(found);
      at += static_cast<std::int64_t>(bytes.size());
    }
    return at;
  }

  // The offset after the line feed of the line at `begin`, if it ends with CR LF and has no NUL.
  std::optional<std::int64_t> EndOfLine(std::int64_t begin) {
    const std::int64_t end = FindLineFeed(begin) + 1;
    const std::int64_t line_end = end - kRecordBytesMin;
    if (line_end < begin || !texts_.At(line_end, kRecordBytesMin).starts_with(kLineEnd)) return std::nullopt;
    return end;
  }

  // The offset of CR LF and a marker from `at` on, without a NUL before them, or -1. No writer leaves a NUL, and huge
  // holes need not be searched.
  std::int64_t FindLineEndAndMarker(std::int64_t at) {
    constexpr std::size_t kPattern = kLineEndAndMarker.size();
    for (std::string_view bytes = texts_.At(at, kPattern); bytes.size() >= kPattern; bytes = texts_.At(at, kPattern)) {
      const std::size_t found = bytes.find(kLineEndAndMarker);
      if (bytes.substr(0, found).find('\0') != std::string_view::npos) return -1;
      if (found != std::string_view::npos) return at + static_cast<std::int64_t>(found);
      at += static_cast<std::int64_t>(bytes.size() - kPattern + 1);
    }
    return -1;
  }

  // --- findings

  bool IsFull() const { return scan_.findings.size() >= kFindingsMax; }

  void Add(std::string_view rule, StoreFile file, std::int64_t offset, std::uint64_t value, std::string explanation) {
    if (!IsFull()) scan_.findings.push_back({rule, file, offset, value, std::move(explanation)});
  }

  void AddHeaderFinding(std::string_view rule, std::size_t member, std::uint32_t value, std::string explanation) {
    Add(rule, StoreFile::kIndex, OffsetInHeader(member), value, std::move(explanation));
  }

  // A size is found at the end of the file.
  void AddSizeFinding(std::string_view rule, StoreFile file, std::int64_t size, std::string explanation) {
    Add(rule, file, size, static_cast<std::uint64_t>(size), std::move(explanation));
  }

  void AddSlotFinding(std::string_view rule, const WalkedRecord& record, std::string explanation) {
    Add(rule, StoreFile::kIndex, SlotOffset(record.slot), record.offset,
        "slot " + std::to_string(record.slot) + ": " + std::move(explanation));
  }

  ByteSource& index_;
  ByteSource& data_;
  WindowedBytes slots_;
  WindowedBytes texts_;
  StoreScan scan_;
  UncountedPart uncounted_;
  std::int64_t doubtful_end_ = 0;
};

}  // namespace

StoreScan ScanStore(ByteSource& index, ByteSource& data) { return Examiner(index, data).Scan(); }

namespace {

constexpr int kScansMax = 5;
constexpr int kHeaderScansMax = 2;
constexpr long kPauseNanoseconds = 20'000'000;

void Pause() {
  const timespec pause = {.tv_sec = 0, .tv_nsec = kPauseNanoseconds};
  (void)nanosleep(&pause, nullptr);  // a shorter pause only adds a scan
}

// An open file of the store, or the error of its open.
struct Opened {
  explicit Opened(const std::string& name) : path(name), bytes(OpenStoreFile(name, OpenMode::kRead)), error(errno) {
    if (bytes.IsOpen()) error = 0;
  }
  int Error() const { return error != 0 ? error : bytes.Error(); }

  std::string path;
  FileBytes bytes;
  int error;
};

Finding MissingFile(StoreFile file) {
  return {"file.missing", file, 0, 0, "the next writer that opens this report starts it over"};
}

// Set when the files cannot be checked.
std::optional<StoreVerdict> VerdictOnOpening(const Opened& index, const Opened& data) {
  const bool is_index_missing = index.error == ENOENT;
  const bool is_data_missing = data.error == ENOENT;
  StoreVerdict verdict;
  if (is_index_missing && is_data_missing) {
    verdict.state = StoreState::kNotFound;
    return verdict;
  }
  for (const Opened* const file : {&index, &data}) {
    if (file->Error() == 0 || file->error == ENOENT) continue;
    verdict.state = StoreState::kUnreadable;
    verdict.error = file->Error();
    verdict.file = file->path;
    return verdict;
  }
  if (!is_index_missing && !is_data_missing) return std::nullopt;
  verdict.state = StoreState::kDamaged;
  verdict.scan.findings.push_back(MissingFile(is_index_missing ? StoreFile::kIndex : StoreFile::kData));
  return verdict;
}

bool IsSameMoment(const StoreScan& scan, const StoreScan& before) {
  return scan.header == before.header && scan.index_bytes == before.index_bytes && scan.data_bytes == before.data_bytes;
}

// Scans with `scan_store` until the verdict is certain, at most `scans_max` times.
template <typename ScanFunction>
StoreVerdict Verify(const std::string& base_path, int scans_max, ScanFunction scan_store) {
  StoreVerdict verdict;
  std::optional<StoreScan> before;
  for (int scans = 0; scans < scans_max; ++scans) {
    Opened index(IndexFileName(base_path));
    Opened data(DataFileName(base_path));
    if (auto failed = VerdictOnOpening(index, data)) return *std::move(failed);
    verdict.scan = scan_store(index.bytes, data.bytes);
    if (auto failed = VerdictOnOpening(index, data)) return *std::move(failed);  // a read may have failed since
    if (verdict.scan.findings.empty()) return verdict;
    if (before.has_value() && IsSameMoment(verdict.scan, *before) && verdict.scan.findings == before->findings) {
      verdict.state = StoreState::kDamaged;
      return verdict;
    }
    before = verdict.scan;
    Pause();
  }
  verdict.state = StoreState::kChanged;
  return verdict;
}

}  // namespace

StoreVerdict VerifyStore(const std::string& base_path) { return Verify(base_path, kScansMax, ScanStore); }

StoreVerdict VerifyHeader(const std::string& base_path) {
  const auto scan_store = [](ByteSource& index, ByteSource& data) { return Examiner(index, data).ScanHeader(); };
  return Verify(base_path, kHeaderScansMax, scan_store);
}

}  // namespace qx::report
