#include "sdk/StoreSnapshot.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "reportfile/RecordEnds.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/RecordWriter.h"
#include "sdk/Errors.h"

namespace qx::sdk {

namespace {

using report::IndexHeader;

constexpr std::uint32_t kRecordsMax = std::uint32_t{1} << 26;
constexpr std::int64_t kWindowBytesMax = std::int64_t{256} * 1024;
constexpr int kTriesMax = 5;
constexpr std::chrono::milliseconds kPause{1};

Error OpenError(const std::string& path, int error) {
  if (error == ENOENT) return MakeError(ErrorCode::kNotFound, "there is no report " + path);
  return SystemError("cannot open " + path, error);
}

// A text without its line end, if it is whole.
Record RecordOf(std::string_view text, std::int64_t bytes_expected) {
  const bool has_line_end = text.ends_with(report::kLineEnd);
  const bool is_whole = has_line_end && static_cast<std::int64_t>(text.size()) == bytes_expected;
  if (has_line_end) text.remove_suffix(report::kLineEnd.size());
  return {.text = std::string(text), .state = is_whole ? RecordState::kWhole : RecordState::kDamaged};
}

}  // namespace

Error StoreSnapshot::Take(const std::string& path) {
  for (int tries = 1;; ++tries) {
    bool is_steady = false;
    if (Error error = TakeOnce(path, is_steady); error.Failed()) return error;
    if (is_steady || tries == kTriesMax) return {};
    std::this_thread::sleep_for(kPause);
  }
}

// Header, slots, and the header again: the slots belong to the header if it is the same. `is_steady` is false also
// while a part is being appended to a full ring, which ends soon if its writer lives.
Error StoreSnapshot::TakeOnce(const std::string& path, bool& is_steady) {
  offsets_.clear();
  const bool is_open = store_.OpenRead(path.c_str());
  const int open_error = errno;
  if (!is_open) return OpenError(path, open_error);
  header_ = store_.header();
  uncounted_ = 0;
  old_round_ = 0;
  const bool is_empty = header_.highestIndex == 0;
  if (!is_empty && !report::HasPlausibleRing(header_)) {
    return MakeError(ErrorCode::kDamaged, path + ".ind is damaged: its header contradicts itself");
  }
  if (header_.highestIndex > kRecordsMax || header_.highestIndex > store_.GetDataFileSize() / 2) {
    return MakeError(ErrorCode::kDamaged, path + ".ind is damaged: it counts more records than the data file can hold");
  }
  if (Error error = ReadSlots(header_.highestIndex); error.Failed()) return error;
  uncounted_ = UncountedRecords();
  offsets_.erase(offsets_.begin(), offsets_.begin() + uncounted_);
  for (std::uint32_t age = 0; age + 1 < Count(); ++age) {
    if (offsets_[age + 1] <= offsets_[age]) old_round_ = age + 1;
  }
  is_steady = uncounted_ == 0 && store_.readPositions() == 0 && store_.header() == header_;
  return {};
}

Error StoreSnapshot::ReadSlots(std::uint32_t count) {
  offsets_.resize(count);
  report::RecordReader reader(store_);
  for (std::uint32_t age = 0; age < count;) {
    const std::uint32_t slot = report::SlotOfAge(header_, age);
    const std::uint32_t run = std::min(count - age, header_.maxRecord - slot);
    const int error = reader.ReadSlots(slot, std::span(offsets_).subspan(age, run));
    if (error != 0) return SystemError("cannot read the slots", error);
    age += run;
  }
  return {};
}

// The slots of a part that is being appended to a full ring, or that a killed writer left: they lead to the texts after
// the write position, and the header does not count them.
std::uint32_t StoreSnapshot::UncountedRecords() {
  if (header_.highestIndex == 0 || header_.highestIndex < header_.maxRecord) return 0;
  return report::CountUncounted(store_);
}

std::uint32_t StoreSnapshot::SlotOf(std::uint32_t age) const { return report::SlotOfAge(header_, age + uncounted_); }

// Where the record has to end. The last one of a round ends where the round ended.
std::int64_t StoreSnapshot::EndOf(std::uint32_t age) const {
  if (age + 1 < Count()) return offsets_[age + 1] > offsets_[age] ? offsets_[age + 1] : header_.fileEnd;
  return header_.writePosition != 0 ? header_.writePosition : header_.fileEnd;
}

// How many records from `age` on have neighbouring slots and rising offsets, within a window.
std::uint32_t StoreSnapshot::RunFrom(std::uint32_t age, std::uint32_t count_max) const {
  const std::uint32_t to_ring_end = header_.maxRecord - SlotOf(age);
  const std::uint32_t limit = std::min({count_max, Count() - age, to_ring_end});
  std::uint32_t run = 1;
  while (run < limit && offsets_[age + run] > offsets_[age + run - 1] &&
         EndOf(age + run) - offsets_[age] <= kWindowBytesMax) {
    ++run;
  }
  return run;
}

Error StoreSnapshot::Read(std::uint32_t age, std::uint32_t count_max, std::vector<Record>& records) {
  if (age >= Count() || count_max == 0) return {};
  const std::uint32_t run = RunFrom(age, count_max);
  const std::size_t size_before = records.size();
  report::RecordReader reader(store_);
  text_.clear();
  const report::TakenRecords taken = reader.Take(SlotOf(age), {run, report::TakeLimits::kUnlimited}, &text_);
  if (taken.count != run || !TakeWhole(age, run, text_, records)) {
    records.resize(size_before);
    if (Error error = ReadEach(age, run, records); error.Failed()) return error;
  }
  JudgeAgain(age, std::span(records).subspan(size_before));
  return {};
}

// Splits the text of a run where its records have to end. False if one of them ends elsewhere.
bool StoreSnapshot::TakeWhole(std::uint32_t age, std::uint32_t count, std::string_view text,
                              std::vector<Record>& records) const {
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::int64_t bytes = EndOf(age + i) - offsets_[age + i];
    if (bytes < 2 || static_cast<std::int64_t>(text.size()) < bytes) return false;
    const std::string_view record = text.substr(0, static_cast<std::size_t>(bytes));
    if (report::FindTextEnd(record) != record.size() - 1) return false;
    records.push_back(RecordOf(record, bytes));
    text.remove_prefix(record.size());
  }
  return text.empty();
}

Error StoreSnapshot::ReadEach(std::uint32_t age, std::uint32_t count, std::vector<Record>& records) {
  for (std::uint32_t i = 0; i < count; ++i) {
    std::string text;
    errno = 0;
    const bool is_read = store_.readLine(text, SlotOf(age + i));
    const int error = errno;
    if (!is_read) return SystemError("cannot read a record", error);
    records.push_back(RecordOf(text, EndOf(age + i) - offsets_[age + i]));
  }
  return {};
}

bool StoreSnapshot::IsOverwritten(std::uint32_t age, const IndexHeader& now) const {
  const std::int64_t written_to = now.writePosition + static_cast<std::int64_t>(report::kEndMarker.size());
  const bool is_of_old_round = age < old_round_;
  const bool has_restarted =
      now.elementCount - header_.elementCount >= report::RecordsPerRound(header_) - report::RecordsInRound(header_);
  return now.writePosition != 0 && (is_of_old_round || has_restarted) && offsets_[age] < written_to;
}

// What longer records have overwritten, and what a writer has replaced since the snapshot, is not good, whatever its
// text looks like.
void StoreSnapshot::JudgeAgain(std::uint32_t age, std::span<Record> records) {
  std::vector<std::uint32_t> slots(records.size());
  const bool is_known = report::RecordReader(store_).ReadSlots(SlotOf(age), slots) == 0 && store_.readPositions() == 0;
  const IndexHeader now = store_.header();
  for (std::uint32_t i = 0; i < records.size(); ++i) {
    const bool is_there = is_known && slots[i] == offsets_[age + i] && !IsOverwritten(age + i, now);
    if (!is_there) records[i] = {.text = {}, .state = RecordState::kOverwritten};
  }
}

bool StoreSnapshot::HasMoved(const std::string& path, const IndexHeader& header) {
  CReportFileBase store;
  return !store.OpenRead(path.c_str()) || store.header() != header;
}

}  // namespace qx::sdk
