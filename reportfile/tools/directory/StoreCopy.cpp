#include "reportfile/tools/directory/StoreCopy.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>

#include "reportfile/StoreFormat.h"
#include "reportfile/StoreIo.h"
#include "reportfile/tools/ByteSource.h"
#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/WritePath.h"

namespace qx::report {

namespace {

constexpr int kTriesMax = 20;
constexpr int kSpinsMax = 400;
constexpr long kSpinNanoseconds = 50'000;
constexpr int kBackOffMax = 8;
constexpr std::int64_t kMarkerBytes = kEndMarker.size();

void Pause(long nanoseconds) {
  const timespec pause = {.tv_sec = 0, .tv_nsec = nanoseconds};
  (void)nanosleep(&pause, nullptr);  // a shorter pause does no harm
}

// The slot of the record for which there are `younger` newer records.
std::uint32_t SlotOfRecent(const IndexHeader& header, std::uint32_t younger) {
  return SlotOfAge(header, header.highestIndex - 1 - younger);
}

// The files of a store at this moment.
class LiveStore {
 public:
  explicit LiveStore(const std::string& base_path, int directory)
      : index_(OpenForReading(IndexFileName(base_path), directory)),
        index_error_(errno),
        data_(OpenForReading(DataFileName(base_path), directory)),
        data_error_(errno) {}

  int IndexError() const { return index_.IsOpen() ? 0 : index_error_; }
  int DataError() const { return data_.IsOpen() ? 0 : data_error_; }

  // Reads the header twice, so that a header in the middle of a write is not used. Unset if the file is shorter than a
  // header, or if no two reads agree.
  std::optional<IndexHeader> Header() {
    for (int spins = 0; spins < kSpinsMax; ++spins) {
      IndexHeader first;
      IndexHeader second;
      if (index_.ReadAt(0, &first, sizeof first) != sizeof first) return std::nullopt;
      if (index_.ReadAt(0, &second, sizeof second) == sizeof second && first == second) return first;
    }
    return std::nullopt;
  }

  std::optional<std::uint32_t> Slot(std::uint32_t slot) {
    std::uint32_t offset = 0;
    if (index_.ReadAt(SlotOffset(slot), &offset, sizeof offset) != sizeof offset) return std::nullopt;
    return offset;
  }

  bool HasMarkerAt(std::int64_t offset) {
    char bytes[kMarkerBytes];
    return data_.ReadAt(offset, bytes, sizeof bytes) == sizeof bytes &&
           std::string_view(bytes, sizeof bytes) == kEndMarker;
  }

  ByteSource& Index() { return index_; }
  ByteSource& Data() { return data_; }
  int ReadError() const { return index_.Error() != 0 ? index_.Error() : data_.Error(); }
  struct stat IndexStatus() const {
    return StatusOf(index_);
  }
  struct stat DataStatus() const {
    return StatusOf(data_);
  }

 private:
  static struct stat StatusOf(const FileBytes& file) {
    struct stat status = {};
    (void)file::StatusOf(file.Number(), status);  // if it fails, the copy has no permissions
    return status;
  }

  FileBytes index_;
  int index_error_;
  FileBytes data_;
  int data_error_;
};

template <typename T>
std::string_view BytesOf(const T& value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

// The copies while they are being made.
struct Copies {
  Copies(const std::string& base_path, int directory)
      : index(IndexFileName(base_path), directory), data(DataFileName(base_path), directory) {}
  int Error() const { return index.Error() != 0 ? index.Error() : data.Error(); }
  const std::string& FailedPath() const { return index.Error() != 0 ? index.Path() : data.Path(); }

  NewFile index;
  NewFile data;
};

enum class TryEnd { kCopied, kMoved, kFailed };

// One attempt at a copy.
class Copier {
 public:
  Copier(const std::string& from, int from_directory, Copies& to) : from_(from), live_(from, from_directory), to_(to) {}

  TryEnd Try() {
    if (!CheckOpened()) return TryEnd::kFailed;
    const std::optional<IndexHeader> before = live_.Header();
    const bool is_usual = before.has_value() && HasPlausibleRing(*before);
    const bool has_held = is_usual ? CopyConsistently(*before) : CopyAsItIs(before);
    if (const int error = live_.ReadError()) return Fail(error, from_, true);
    if (to_.Error() != 0) return Fail(to_.Error(), to_.FailedPath(), false);
    return has_held ? TryEnd::kCopied : TryEnd::kMoved;
  }

  // Syncs and closes the copies.
  TryEnd Finish() {
    for (NewFile* const file : {&to_.index, &to_.data}) {
      const bool is_index = file == &to_.index;
      if (const int error = file->Finish(is_index ? live_.IndexStatus() : live_.DataStatus())) {
        return Fail(error, file->Path(), false);
      }
    }
    return TryEnd::kCopied;
  }

  const StoreCopy& result() const { return result_; }

 private:
  bool CheckOpened() {
    if (live_.IndexError() != 0) (void)Fail(live_.IndexError(), IndexFileName(from_), true);
    if (live_.IndexError() == 0 && live_.DataError() != 0) (void)Fail(live_.DataError(), DataFileName(from_), true);
    return result_.state == StoreCopyState::kCopied;
  }

  TryEnd Fail(int error, std::string file, bool is_source_error) {
    result_.state = is_source_error && error == ENOENT ? StoreCopyState::kGone : StoreCopyState::kFailed;
    result_.error = error;
    result_.is_source_error = is_source_error;
    result_.file = std::move(file);
    return TryEnd::kFailed;
  }

  // Copies a store without a header, or with one that no writer can have left. The copy is good only if header and
  // sizes did not change.
  bool CopyAsItIs(const std::optional<IndexHeader>& before) {
    const std::int64_t index_bytes = live_.Index().Size();
    const std::int64_t data_bytes = live_.Data().Size();
    to_.index.CopyFrom(live_.Index());
    to_.data.CopyFrom(live_.Data());
    return live_.Header() == before && live_.Index().Size() == index_bytes && live_.Data().Size() == data_bytes;
  }

  bool CopyConsistently(const IndexHeader& before) {
    to_.index.CopyFrom(live_.Index());
    const std::optional<IndexHeader> reference = CatchUp(before);
    if (!reference.has_value()) return false;
    to_.data.CopyFrom(live_.Data());
    const std::optional<IndexHeader> after = HeaderAfterTheCopiedPart(*reference);
    if (!after.has_value() || IsTouched(*reference, *after)) return false;
    result_.was_written = after->elementCount != reference->elementCount;
    if (result_.was_written) CutToMoment(*reference);
    return true;
  }

  // Copies the slots of newer records until the header is the same before and after these slots are read. The copied
  // index then gets this header, which is returned.
  std::optional<IndexHeader> CatchUp(IndexHeader seen) {
    for (int spins = 0; spins < kSpinsMax; ++spins) {
      const std::optional<IndexHeader> now = live_.Header();
      if (!now.has_value() || !HasPlausibleRing(*now) || now->maxRecord != seen.maxRecord) return std::nullopt;
      const std::uint32_t appended = now->elementCount - seen.elementCount;
      if (appended >= now->maxRecord) return std::nullopt;
      CopyRecentSlots(*now, appended);
      const bool is_in_flight = live_.Slot(SlotForNewRecord(*now)) == now->writePosition;
      if (live_.Header() == now && (!is_in_flight || spins == kSpinsMax - 1)) {
        to_.index.WriteAt(0, BytesOf(*now));
        return now;
      }
      if (is_in_flight) Pause(kSpinNanoseconds);
      seen = *now;
    }
    return std::nullopt;
  }

  // Copies the slots of the `appended` newest records, and of the record before them.
  void CopyRecentSlots(const IndexHeader& header, std::uint32_t appended) {
    for (std::uint32_t younger = 0; younger <= appended && younger < header.highestIndex; ++younger) {
      const std::uint32_t slot = SlotOfRecent(header, younger);
      if (const auto offset = live_.Slot(slot)) to_.index.WriteAt(SlotOffset(slot), BytesOf(*offset));
    }
  }

  // Waits for a header that shows how far the writer has written. Either the marker is at the writePosition of this
  // header, so no record is being written; or the record that was being written is counted in it.
  std::optional<IndexHeader> HeaderAfterTheCopiedPart(const IndexHeader& reference) {
    std::optional<IndexHeader> first;
    std::optional<IndexHeader> now;
    for (int spins = 0; spins < kSpinsMax; ++spins) {
      now = live_.Header();
      if (!now.has_value() || !HasPlausibleRing(*now) || now->maxRecord != reference.maxRecord) return std::nullopt;
      if (!first.has_value()) first = now;
      if (now->elementCount != first->elementCount) return now;
      if (RecordsInRound(*now) != 0 && live_.HasMarkerAt(now->writePosition) && live_.Header() == now) return now;
      Pause(kSpinNanoseconds);
    }
    // The writer was killed, or the data file was just restarted and has no writer. If the header is unchanged, nothing
    // is being written.
    return now == reference ? now : std::nullopt;
  }

  // True if the writer has overwritten the text of a slot of `reference` when its header is `after`.
  bool IsTouched(const IndexHeader& reference, const IndexHeader& after) const {
    switch (WritePathBetween(reference, after)) {
      case WritePath::kNowhere:
      case WritePath::kAfterEveryRecord:
        return false;
      case WritePath::kOverOldRound:
      case WritePath::kOverThisRound: {
        const std::optional<std::uint32_t> lowest = LowestLiveOffset(reference);
        return lowest.has_value() && *lowest < after.writePosition + kMarkerBytes;
      }
      case WritePath::kEverywhere:
        return true;
    }
    return true;
  }

  // The lowest offset of a text that the writer can overwrite next: a text of the previous round after the marker, or,
  // if every record is of this round, the oldest one.
  std::optional<std::uint32_t> LowestLiveOffset(const IndexHeader& header) const {
    const std::uint32_t in_round = RecordsInRound(header);
    if (in_round >= header.highestIndex) return CopiedSlot(SlotOfAge(header, 0));
    const std::int64_t marker_end = in_round != 0 ? header.writePosition + kMarkerBytes : 0;
    for (std::uint32_t age = 0; age < header.highestIndex - in_round; ++age) {
      const std::optional<std::uint32_t> offset = CopiedSlot(SlotOfAge(header, age));
      if (offset.has_value() && *offset >= marker_end) return offset;
    }
    return std::nullopt;
  }

  std::optional<std::uint32_t> CopiedSlot(std::uint32_t slot) const {
    std::uint32_t offset = 0;
    if (to_.index.ReadAt(SlotOffset(slot), &offset, sizeof offset) != sizeof offset) return std::nullopt;
    return offset;
  }

  // Removes what was written after `header`.
  void CutToMoment(const IndexHeader& header) {
    to_.index.Shorten(SlotOffset(header.highestIndex));
    if (RecordsInRound(header) == 0) return;  // there is no marker before the previous round
    to_.data.WriteAt(header.writePosition, kEndMarker);
    if (header.writePosition == header.fileEnd) to_.data.Shorten(header.writePosition + kMarkerBytes);
  }

  const std::string& from_;
  LiveStore live_;
  Copies& to_;
  StoreCopy result_;
};

}  // namespace

StoreCopy CopyStore(const std::string& from, const std::string& to, int from_directory, int to_directory) {
  Copies copies(to, to_directory);
  for (int tries = 0; tries < kTriesMax; ++tries) {
    Copier copier(from, from_directory, copies);
    const TryEnd end = copier.Try();
    if (end == TryEnd::kCopied) (void)copier.Finish();
    if (end != TryEnd::kMoved) return copier.result();
    Pause(kSpinNanoseconds << std::min(tries, kBackOffMax));
  }
  return {.state = StoreCopyState::kNeverStill, .file = {}};
}

}  // namespace qx::report
