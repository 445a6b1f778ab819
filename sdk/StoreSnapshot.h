// Internal: the records of a report as they are at one moment, each with a judgement of its text.
//
// A snapshot keeps the header and the offsets of all slots. From them follows where each record has to end: where the
// next one begins, and the newest one at the end marker. A text that ends anywhere else is not what was written there.
// After the texts of a window are read, header and slots are read again: what a writer has replaced meanwhile is not
// returned as good.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "sdk/Reader.h"

namespace qx::sdk {

// Threads: one thread.
// Owns: the open files; four bytes for each record, at most 256 MiB.
// Failure: an Error. Throws std::bad_alloc.
class StoreSnapshot {
 public:
  // Takes a new snapshot, of the files that have the path now. [owning thread]
  Error Take(const std::string& path);

  // How many records there are. Records that a killed writer left, and that the header does not count, are left out.
  [[nodiscard]] std::uint32_t Count() const { return static_cast<std::uint32_t>(offsets_.size()); }

  // Appends records from `age` on (0 is the oldest one), at most `count_max`, about 256 KiB of text, at least one; none
  // after the last one. [owning thread]
  Error Read(std::uint32_t age, std::uint32_t count_max, std::vector<Record>& records);

  // True if the header in the files is not that of the snapshot, or cannot be read. [owning thread]
  [[nodiscard]] static bool HasMoved(const std::string& path, const report::IndexHeader& header);
  [[nodiscard]] const report::IndexHeader& Header() const { return header_; }

 private:
  [[nodiscard]] Error TakeOnce(const std::string& path, bool& is_steady);
  [[nodiscard]] Error ReadSlots(std::uint32_t count);
  [[nodiscard]] std::uint32_t UncountedRecords();
  [[nodiscard]] std::uint32_t SlotOf(std::uint32_t age) const;
  [[nodiscard]] std::int64_t EndOf(std::uint32_t age) const;
  [[nodiscard]] std::uint32_t RunFrom(std::uint32_t age, std::uint32_t count_max) const;
  [[nodiscard]] bool TakeWhole(std::uint32_t age, std::uint32_t count, std::string_view text,
                               std::vector<Record>& records) const;
  [[nodiscard]] Error ReadEach(std::uint32_t age, std::uint32_t count, std::vector<Record>& records);
  void JudgeAgain(std::uint32_t age, std::span<Record> records);
  [[nodiscard]] bool IsOverwritten(std::uint32_t age, const report::IndexHeader& now) const;

  CReportFileBase store_;
  report::IndexHeader header_;
  std::uint32_t uncounted_ = 0;         // records at the oldest end that are left out
  std::uint32_t old_round_ = 0;         // records of the round before the last restart
  std::vector<std::uint32_t> offsets_;  // of the records, oldest first
  std::string text_;
};

}  // namespace qx::sdk
