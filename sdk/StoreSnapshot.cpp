#include "sdk/StoreSnapshot.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <limits>
#include <optional>
#include <thread>

#include "reportfile/RecordEnds.h"
#include "reportfile/RecordReader.h"
#include "reportfile/StoreIo.h"
#include "reportfile/tools/UncountedPart.h"
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

// A record with its text, without the line end. It is whole if the text ends after `bytes_expected` bytes with a line
// end.
RecordView RecordOf(std::string_view text, std::int64_t bytes_expected) {
  const bool has_line_end = text.ends_with(report::kLineEnd);
  const bool is_whole = has_line_end && static_cast<std::int64_t>(text.size()) == bytes_expected;
  if (has_line_end) text.remove_suffix(report::kLineEnd.size());
  return {.text = text, .state = is_whole ? RecordState::kWhole : RecordState::kDamaged};
}

}  // namespace

int KeptFile::Follow(bool& was_opened) {
  struct stat at_path = {};
  const int error = file::StatusOf(path_.c_str(), at_path);
  if (file_.IsOpen() && error == 0 && file::IsSameFile(status_, at_path)) {
    status_ = at_path;
    return 0;
  }
  file_ = report::OpenStoreFile(path_, report::OpenMode::kRead);
  const int open_error = errno;
  if (!file_.IsOpen()) return open_error;
  was_opened = true;
  return file::StatusOf(file_.Number(), status_);
}

bool KeptFile::IsReplaced() const {
  struct stat now = {};
  return file::StatusOf(path_.c_str(), now) != 0 || !file::IsSameFile(status_, now);
}

bool KeptFile::IsTouched() const {
  struct stat now = {};
  return file::StatusOf(path_.c_str(), now) != 0 || !file::IsUnchanged(status_, now);
}

std::int64_t KeptFile::Size() const {
  struct stat now = {};
  return file::StatusOf(file_.Number(), now) == 0 ? now.st_size : 0;
}

StoreSnapshot::StoreSnapshot(const std::string& path)
    : path_(path), index_(report::IndexFileName(path)), data_(report::DataFileName(path)) {}

Error StoreSnapshot::Take() {
  for (int tries = 1;; ++tries) {
    bool is_steady = false;
    if (Error error = TakeOnce(is_steady); error.Failed()) {
      offsets_.clear();
      return error;
    }
    if (is_steady || tries == kTriesMax) return {};
    std::this_thread::sleep_for(kPause);
  }
}

// Reads the header, the slots, and the header again. If both headers are equal, the slots belong to this header, and
// `is_steady` is true. `is_steady` is also false while a part is being appended to a full ring (this ends soon unless
// the writer was killed), and if one file was replaced after the other one was opened.
Error StoreSnapshot::TakeOnce(bool& is_steady) {
  bool was_opened = false;
  if (Error error = OpenFiles(was_opened); error.Failed()) return error;
  if (const int error = ReadHeader(header_).error; error != 0) return SystemError("cannot open " + path_, error);
  if (Error error = CheckHeader(); error.Failed()) return error;
  if (const int error = ReadAllSlots(); error != 0) return SystemError("cannot read the slots", error);
  DropUncounted();
  const auto descent = std::adjacent_find(offsets_.rbegin(), offsets_.rend(), std::less_equal<>());
  const bool has_old_round = descent != offsets_.rend();
  old_round_ = has_old_round ? static_cast<std::uint32_t>(offsets_.rend() - descent - 1) : 0;

  IndexHeader now;
  is_steady = uncounted_ == 0 && !ReadHeader(now).Failed() && now == header_;
  if (was_opened) is_steady = is_steady && !index_.IsReplaced() && !data_.IsReplaced();
  return {};
}

Error StoreSnapshot::OpenFiles(bool& was_opened) {
  const int index_error = index_.Follow(was_opened);
  const int data_error = data_.Follow(was_opened);
  const int error = index_error != 0 ? index_error : data_error;
  return error != 0 ? OpenError(path_, error) : Error();
}

// Reads the header. If the index file is too short, `header` is that of an empty report.
file::Progress StoreSnapshot::ReadHeader(IndexHeader& header) const {
  header = {};
  IndexHeader read;
  const file::Progress progress = index_.ReadAt(0, &read, sizeof read);
  if (progress.bytes == sizeof read) header = read;
  return progress;
}

Error StoreSnapshot::CheckHeader() const {
  if (header_.highestIndex == 0) return {};
  if (!report::HasPlausibleRing(header_)) {
    return MakeError(ErrorCode::kDamaged, path_ + ".ind is damaged: its header contradicts itself");
  }
  if (header_.highestIndex > kRecordsMax || header_.highestIndex > data_.Size() / 2) {
    return MakeError(ErrorCode::kDamaged,
                     path_ + ".ind is damaged: it counts more records than the data file can hold");
  }
  return {};
}

// Reads slots; those that the file does not have read as 0.
int StoreSnapshot::ReadSlots(std::uint32_t slot, std::span<std::uint32_t> offsets) const {
  const file::Progress progress = index_.ReadAt(report::SlotOffset(slot), offsets.data(), offsets.size_bytes());
  for (std::uint32_t& missing : offsets.subspan(progress.bytes / sizeof offsets[0])) missing = 0;
  return progress.error;
}

int StoreSnapshot::ReadAllSlots() {
  const std::uint32_t count = header_.highestIndex;
  offsets_.resize(count);
  for (std::uint32_t age = 0; age < count;) {
    const std::uint32_t slot = report::SlotOfAge(header_, age);
    const std::uint32_t run = std::min(count - age, header_.maxRecord - slot);
    const int error = ReadSlots(slot, std::span(offsets_).subspan(age, run));
    if (error != 0) return error;
    age += run;
  }
  return 0;
}

// Drops the slots of a part that the header does not count, because the part is being appended to a full ring, or was
// left by a killed writer. These slots lead to texts after the write position.
void StoreSnapshot::DropUncounted() {
  uncounted_ = 0;
  uncounted_end_ = 0;
  const bool is_full = header_.highestIndex != 0 && header_.highestIndex == header_.maxRecord;
  if (!is_full) return;
  const auto slot_at = [this](std::uint32_t slot) { return std::int64_t{offsets_[slot - header_.oldestIndex]}; };
  const auto end_of = [this](std::uint32_t, std::int64_t begin) -> std::optional<std::int64_t> {
    std::string text;
    bool too_long = false;
    const int error = report::ReadTextAt(data_.Number(), begin, std::string::npos, &text, &too_long);
    if (error != 0 || !text.ends_with(report::kLineEnd)) return std::nullopt;
    return begin + static_cast<std::int64_t>(text.size());
  };
  const auto is_marker_at = [this](std::int64_t offset) { return IsMarkerAt(offset); };
  const report::UncountedPart part = report::FindUncountedPart(header_, slot_at, end_of, is_marker_at);
  uncounted_ = part.records;
  uncounted_end_ = part.records != 0 ? part.end : 0;
  offsets_.erase(offsets_.begin(), offsets_.begin() + uncounted_);
}

bool StoreSnapshot::IsMarkerAt(std::int64_t offset) const {
  char bytes[report::kEndMarker.size()];
  const file::Progress progress = data_.ReadAt(offset, bytes, sizeof bytes);
  return std::string_view(bytes, progress.bytes) == report::kEndMarker;
}

std::uint32_t StoreSnapshot::SlotOf(std::uint32_t age) const { return report::SlotOfAge(header_, age + uncounted_); }

// The offset at which the record must end. The last record of a round ends at the end of the round.
std::int64_t StoreSnapshot::EndOf(std::uint32_t age) const {
  if (age + 1 < Count()) return offsets_[age + 1] > offsets_[age] ? offsets_[age + 1] : header_.fileEnd;
  return header_.writePosition != 0 ? header_.writePosition : header_.fileEnd;
}

// The number of records from `age` on that have neighbouring slots and rising offsets, and fit into a window.
std::uint32_t StoreSnapshot::RunFrom(std::uint32_t age, std::uint32_t count_max) const {
  const std::uint32_t to_ring_end = header_.maxRecord - SlotOf(age);
  const std::uint32_t limit = std::min({count_max, Count() - age, to_ring_end});
  const std::int64_t window_end = offsets_[age] + kWindowBytesMax;
  std::uint32_t run = 1;
  while (run < limit && offsets_[age + run] > offsets_[age + run - 1] && offsets_[age + run] <= window_end) ++run;
  const bool is_last_too_long = run > 1 && EndOf(age + run - 1) > window_end;
  return is_last_too_long ? run - 1 : run;
}

Error StoreSnapshot::Read(std::uint32_t age, std::uint32_t count_max, std::span<const RecordView>& records) {
  records = {};
  long_texts_.clear();
  if (age >= Count() || count_max == 0) return {};
  const int error = ReadTexts(age, RunFrom(age, count_max));
  if (error != 0) return SystemError("cannot read a record", error);
  CheckAfterReading(age);
  records = records_;
  return {};
}

// Reads the texts of a run with one read.
int StoreSnapshot::ReadTexts(std::uint32_t age, std::uint32_t count) {
  const std::int64_t begin = offsets_[age];
  const std::int64_t end = EndOf(age + count - 1);
  const std::string_view window = ReadWindow(begin, end);
  const bool is_all = static_cast<std::int64_t>(window.size()) == end - begin;
  return is_all && TakeWhole(age, count, window) ? 0 : TakeEach(age, count, window);
}

// Splits the run at the offsets where its records must end. False if one of them ends elsewhere.
bool StoreSnapshot::TakeWhole(std::uint32_t age, std::uint32_t count, std::string_view window) {
  if (report::CountTextEnds(window) != count) return false;
  records_.resize(count);
  const std::uint32_t* const offsets = &offsets_[age];
  std::size_t at = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::size_t next = i + 1 < count ? offsets[i + 1] - offsets[0] : window.size();
    if (next < at + report::kLineEnd.size()) return false;
    const std::size_t text_end = next - report::kLineEnd.size();
    if (window[text_end] != '\r' || window[text_end + 1] != '\n') return false;
    records_[i].text = {window.data() + at, text_end - at};
    records_[i].state = RecordState::kWhole;
    at = next;
  }
  return true;
}

// Splits a run in which a record ends elsewhere. If a text does not end in the window, because it is damaged or longer
// than the window, it is read separately.
int StoreSnapshot::TakeEach(std::uint32_t age, std::uint32_t count, std::string_view window) {
  records_.resize(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t offset = offsets_[age + i];
    const std::string_view held = window.substr(std::min<std::size_t>(window.size(), offset - offsets_[age]));
    const report::RecordPiece piece = report::PieceOf(held);
    std::string_view text = held.substr(0, piece.text_bytes);
    if (!piece.is_last) {
      bool too_long = false;
      std::string& whole = long_texts_.emplace_back();
      const int error = report::ReadTextAt(data_.Number(), offset, std::string::npos, &whole, &too_long);
      if (error != 0) return error;
      text = whole;
    }
    records_[i] = RecordOf(text, EndOf(age + i) - offset);
  }
  return 0;
}

// Reads the bytes from `begin` to `end`, as far as possible; empty if they do not fit into a window.
std::string_view StoreSnapshot::ReadWindow(std::int64_t begin, std::int64_t end) {
  const std::int64_t size = end - begin;
  if (size <= 0 || size > kWindowBytesMax) return {};
  if (window_ == nullptr) window_ = std::make_unique_for_overwrite<char[]>(kWindowBytesMax);
  const file::Progress progress = data_.ReadAt(begin, window_.get(), static_cast<std::size_t>(size));
  return {window_.get(), progress.bytes};
}

// The offset up to which the texts of the record's round are overwritten.
std::int64_t StoreSnapshot::OverwrittenTo(std::uint32_t age, const IndexHeader& now) const {
  const std::int64_t written_to = std::max<std::int64_t>(now.writePosition, uncounted_end_);
  const bool is_of_old_round = age < old_round_;
  const bool has_restarted =
      now.elementCount - header_.elementCount >= report::RecordsPerRound(header_) - report::RecordsInRound(header_);
  const bool is_any = written_to != 0 && (is_of_old_round || has_restarted);
  return is_any ? written_to + static_cast<std::int64_t>(report::kEndMarker.size()) : 0;
}

// Marks records as overwritten if longer records have overwritten them, or if a writer has replaced them since the
// snapshot. Their texts do not show this. The records are a run, so all of them belong to the same round.
void StoreSnapshot::CheckAfterReading(std::uint32_t age) {
  slots_now_.resize(records_.size());
  IndexHeader now;
  const bool is_known = ReadSlots(SlotOf(age), slots_now_) == 0 && ReadHeader(now).bytes == sizeof now;
  const std::int64_t overwritten_to = is_known ? OverwrittenTo(age, now) : std::numeric_limits<std::int64_t>::max();
  const bool is_still = std::equal(slots_now_.begin(), slots_now_.end(), offsets_.begin() + age);
  if (is_still && offsets_[age] >= overwritten_to) return;
  for (std::size_t i = 0; i < records_.size(); ++i) {
    const std::uint32_t offset = offsets_[age + i];
    const bool is_there = slots_now_[i] == offset && offset >= overwritten_to;
    if (!is_there) records_[i] = {.text = {}, .state = RecordState::kOverwritten};
  }
}

// The time of the last write is coarse, so the header is compared as well. The header alone is not enough, because a
// report that was started over may have the same header again.
bool StoreSnapshot::HasMoved() const {
  if (index_.IsTouched() || data_.IsReplaced()) return true;
  IndexHeader now;
  return ReadHeader(now).Failed() || now != header_;
}

}  // namespace qx::sdk
