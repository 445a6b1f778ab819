#include "reportfile/tools/RecordWriter.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <limits>
#include <optional>

#include "base/CriticalSection.h"
#include "reportfile/ReportFileBase.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/StoreIo.h"
#include "reportfile/tools/UncountedPart.h"

namespace qx::report {

namespace {

// Slots hold no offset beyond this one.
constexpr std::int64_t kOffsetMax = std::numeric_limits<std::uint32_t>::max();

std::string_view BytesOf(std::span<const std::uint32_t> offsets) {
  return {reinterpret_cast<const char*>(offsets.data()), offsets.size_bytes()};
}

}  // namespace

AppendedRecords RecordWriter::Append(std::span<const std::string_view> texts) {
  const LockScope scope(store_.lock_);
  if (!store_.IsOpen()) return {0, EBADF};
  std::size_t stored = 0;
  try {
    while (stored < texts.size()) {
      const AppendedRecords part = AppendPart(texts.subspan(stored));
      stored += part.stored;
      if (part.error != 0) return {stored, part.error};
    }
  } catch (const std::exception&) {  // before anything of the part is written
    return {stored, ENOMEM};
  }
  return {stored, 0};
}

// Decides which records are the next part, and their offsets. Returns the offset of the end marker after them.
std::int64_t RecordWriter::LayOut(std::span<const std::string_view> texts) {
  const std::int64_t start = store_.header_.writePosition;
  const std::size_t records_max = std::min<std::size_t>(texts.size(), RecordsInPart(store_.header_));
  std::int64_t end = start;
  offsets_.clear();
  for (const std::string_view text : texts.first(records_max)) {
    const std::int64_t next = end + static_cast<std::int64_t>(text.size() + kLineEnd.size());
    if (!offsets_.empty() && (next > kOffsetMax || next - start > kPartBytesMax)) break;
    offsets_.push_back(Low32(end));
    end = next;
  }
  bytes_.clear();
  if (offsets_.size() == 1) return end;
  for (const std::string_view text : texts.first(offsets_.size())) bytes_.append(text).append(kLineEnd);
  return end;
}

std::int64_t RecordWriter::EndOf(std::size_t record, std::int64_t end) const {
  return record + 1 < offsets_.size() ? offsets_[record + 1] : end;
}

// As in writeLine, a record is good if its text and line end are in the data file, and it is stored if its slot is
// written as well. After an error, slots are still written for the records that are good.
AppendedRecords RecordWriter::AppendPart(std::span<const std::string_view> texts) {
  const std::uint32_t slot = SlotForNewRecord(store_.header_);
  std::int64_t index_size = 0;
  if (slot == 0 && LacksHeader(store_.index_file_, index_size)) return AppendFirst(texts.front());

  const std::int64_t start = store_.header_.writePosition;
  const std::int64_t end = LayOut(texts);
  const bool is_one = offsets_.size() == 1;
  const std::size_t bytes_written = WriteAt(store_.data_file_, start, is_one ? texts.front() : std::string_view(bytes_),
                                            is_one ? kLineEndAndMarker : kEndMarker);
  int error = errno;
  std::size_t good = 0;
  while (good < offsets_.size() && EndOf(good, end) - start <= static_cast<std::int64_t>(bytes_written)) ++good;
  if (good == 0) return {0, error};

  const std::size_t slot_bytes =
      WriteAt(store_.index_file_, SlotOffset(slot), BytesOf(std::span(offsets_).first(good)));
  const std::size_t stored = slot_bytes / sizeof(std::uint32_t);
  if (stored < good) error = errno;
  if (stored > 0) Count(static_cast<std::uint32_t>(stored), EndOf(stored - 1, end));
  return {stored, stored < offsets_.size() ? error : 0};
}

// Appends the first record of a new store. writeLine writes its slot and the header in one write.
AppendedRecords RecordWriter::AppendFirst(std::string_view text) {
  const bool is_written = store_.writeLine(std::string(text).c_str());
  const int error = errno;
  if (!is_written) return {0, error};
  return {1, 0};
}

void RecordWriter::Count(std::uint32_t records, std::int64_t marker_offset) {
  store_.header_ = HeaderAfterRecords(store_.header_, records, marker_offset);
  (void)store_.writePositionsToFile();  // the next record writes it again
}

int RecordWriter::StartRing(std::uint32_t slots) {
  std::int64_t size = 0;
  if (!store_.IsOpen()) return EBADF;
  if (!LacksHeader(store_.index_file_, size)) return 0;
  store_.header_ = {.maxRecord = RingSize(slots)};
  return store_.writePositionsToFile() == 0 ? 0 : errno;
}

std::uint32_t RecordWriter::FinishInterrupted() {
  const LockScope scope(store_.lock_);
  const IndexHeader& header = store_.header_;
  if (!HasPlausibleRing(header) || header.highestIndex < header.maxRecord) return 0;
  const UncountedPart part = FindUncounted();
  if (part.records == 0 || WriteAt(store_.data_file_, part.end, kEndMarker) != kEndMarker.size()) return 0;
  Count(part.records, part.end);
  return part.records;
}

bool RecordWriter::IsOpenOn(const struct stat& index, const struct stat& data) const {
  struct stat open_index = {};
  struct stat open_data = {};
  return store_.IsOpen() && file::StatusOf(fileno(store_.index_file_), open_index) == 0 &&
         file::StatusOf(fileno(store_.data_file_), open_data) == 0 && file::IsSameFile(open_index, index) &&
         file::IsSameFile(open_data, data);
}

bool RecordWriter::HasHeaderInFile() const {
  IndexHeader header;
  if (!store_.IsOpen()) return false;
  const file::Progress progress = ReadAt(store_.index_file_, 0, &header, sizeof header);
  return progress.bytes == sizeof header && header == store_.header_;
}

int RecordWriter::ConfirmHeader() {
  const LockScope scope(store_.lock_);
  if (!store_.IsOpen()) return EBADF;
  if (HasHeaderInFile()) return 0;
  const int result = store_.writePositionsToFile();
  const int error = errno;
  return result == 0 ? 0 : error;
}

bool RecordWriter::ReadBack(std::uint32_t age, std::string& record) const {
  const IndexHeader& header = store_.header_;
  if (!HasPlausibleRing(header) || age >= header.highestIndex) return false;
  return store_.readLine(record, SlotOfAge(header, header.highestIndex - 1 - age));
}

// In a full ring, the slot of the oldest record leads to writePosition only if the next record was written there. In a
// ring with free slots there is nothing to find: nobody reads a slot that the header does not count.
UncountedPart RecordWriter::FindUncounted() const {
  std::string text;
  const auto end_of = [&](std::uint32_t slot, std::int64_t begin) -> std::optional<std::int64_t> {
    if (!store_.readLine(text, slot) || !text.ends_with(kLineEnd)) return std::nullopt;
    return begin + static_cast<std::int64_t>(text.size());
  };
  const auto slot_at = [this](std::uint32_t slot) { return std::int64_t{store_.getPositionFromIndexFile(slot)}; };
  const auto is_marker_at = [this](std::int64_t offset) { return IsMarkerAt(offset); };
  return FindUncountedPart(store_.header_, slot_at, end_of, is_marker_at);
}

bool RecordWriter::IsMarkerAt(std::int64_t offset) const {
  char bytes[kEndMarker.size()];
  const file::Progress progress = ReadAt(store_.data_file_, offset, bytes, sizeof bytes);
  return std::string_view(bytes, progress.bytes) == kEndMarker;
}

}  // namespace qx::report
