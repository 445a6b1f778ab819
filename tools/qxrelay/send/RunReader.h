// Reads runs of records from a store that a writer may be appending to, and returns only certain records.
//
// After the texts, slots and header are read again. A record is certain if they show all of the following, so that no
// writer can have changed its text:
//   - Its slot still has the offset from which the text was read.
//   - The new header still counts the record as in the ring. The oldest slot of a full ring is never used, because a
//     writer replaces it before it writes the header; nor is a slot that a batch has replaced already.
//   - If the record belongs to the previous round of the data file, the current round has not reached its text.
// All other records are left out. They are read again later, or they are lost and become a gap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "tools/qxrelay/send/Place.h"
#include "tools/qxrelay/send/StoreNumbers.h"

namespace qx::relay {

// Consecutive records of a ring.
struct RecordRun {
  std::uint64_t first = 0;       // number of the first record, which may be later than requested
  std::uint64_t unreadable = 0;  // records from `first` on without a text in the files; if not 0, `texts` is empty
  std::vector<std::uint32_t> lengths;  // of the texts; empty: no record is certain now, or none can be read
  std::string texts;                   // with their line ends
  int error = 0;                       // of the system

  [[nodiscard]] std::uint64_t Count() const { return lengths.size(); }
  [[nodiscard]] std::uint64_t Next() const { return first + unreadable + Count(); }
};

// Threads: one thread.
// Owns: the open files; about 100 KiB.
// Failure: an error number; EBADMSG for files that contradict themselves. Throws std::bad_alloc.
class RunReader final : public RecordHashes {
 public:
  explicit RunReader(std::string path) : path_(std::move(path)) {}

  // Opens the files that have the path now, and reads the header. Returns 0 or the error number; after a failure, View
  // shows no records. [owning thread]
  [[nodiscard]] int Open();
  [[nodiscard]] const StoreView& View() const { return view_; }

  // Reads records from number `first` on, which must be in Sendable of `range`. Numbers count as at the last Open. The
  // run ends where the ring or the data file wraps, and before the record with which the texts would exceed
  // `bytes_max`; a single record may be longer. If the ring has overwritten the first records meanwhile, the run begins
  // later. [owning thread]
  [[nodiscard]] RecordRun Read(const RecordRange& range, std::uint64_t first, std::size_t bytes_max);

  // The number of bytes of text from `first` on, as the slots show. If the data file has wrapped, it is too high.
  // [owning thread]
  [[nodiscard]] std::uint64_t BytesFrom(const RecordRange& range, std::uint64_t first);

  [[nodiscard]] std::vector<std::uint64_t> Hashes(std::uint64_t age, std::uint64_t count) override;

  // Closes the files. [owning thread]
  void Close();

 private:
  struct Piece;

  [[nodiscard]] int CheckSizes() const;
  [[nodiscard]] Piece PieceFrom(const RecordRange& range, std::uint64_t first, std::size_t bytes_max);
  [[nodiscard]] std::int64_t EndAfter(std::uint64_t age, std::uint32_t offset);
  [[nodiscard]] int ReadTexts(const Piece& piece, RecordRun& run);
  [[nodiscard]] bool SplitWhole(const Piece& piece, RecordRun& run) const;
  void Judge(const Piece& piece, RecordRun& run);
  [[nodiscard]] std::optional<RecordRange> RangeNow(const RecordRun& run);
  static void Keep(RecordRun& run, std::size_t begin, std::size_t end);
  [[nodiscard]] std::int64_t DirtyEnd(std::int64_t offset_max);

  std::string path_;
  CReportFileBase store_;
  StoreView view_;
};

// The last record of a run, with its line end.
[[nodiscard]] std::string_view LastText(const RecordRun& run);

}  // namespace qx::relay
