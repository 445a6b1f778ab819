// Reads the new records of a report, poll by poll, through an interface that numbers records from the oldest one in the
// ring.
//
// Each poll finds where the previous poll ended, by the texts before that place (RecordOverlap.h). It reads the new
// records together with the overlap before them, and then the beginning of this range again. A ring replaces its oldest
// record first. So if the beginning of the range is unchanged, the rest of it was in the ring during the read.
// Otherwise the poll starts over. An interrupted fetch is resumed in the same way as a report is followed, only after a
// longer time.
//
// One case cannot be noticed: since the last poll a writer has written all records of the overlap again, in the same
// order, and the old ones have left the ring.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "reportfile/tools/RecordOverlap.h"

namespace qx::report {

// The source of records: the module, or a model of it in tests. Index 0 is the oldest record of a snapshot.
//
// A snapshot fixes the number of records, not their texts: after the ring has advanced, an index means the newer record
// in the same slot.
class RecordSource {
 public:
  RecordSource() = default;
  virtual ~RecordSource() = default;
  RecordSource(const RecordSource&) = delete;
  RecordSource& operator=(const RecordSource&) = delete;

  // Starts a new snapshot. False: a call failed. The source has the reason. [owning thread]
  [[nodiscard]] virtual bool Refresh() = 0;

  // The records from `start` on, at most `count_max` and as many as fit into one reply; no record after the last one.
  // `start` 0 starts a new snapshot, too. [owning thread]
  [[nodiscard]] virtual bool Read(std::uint32_t start, std::uint32_t count_max, std::vector<std::string>& records) = 0;
};

// The position up to which a report was delivered. A state file stores it.
struct ReportPosition {
  std::uint32_t next = 0;              // index of the next record, as long as the ring does not advance
  std::uint64_t delivered = 0;         // the number of all delivered records
  std::vector<std::uint64_t> overlap;  // hashes of the last delivered records, oldest first; may be empty

  friend bool operator==(const ReportPosition&, const ReportPosition&) = default;
};

enum class PollEvent {
  kNone,
  kGap,        // the last delivered records are gone: others may have been written and replaced meanwhile
  kAmbiguous,  // the records repeat, so that the position is not certain; records may be missing, but none comes twice
  kStartedOver,  // there are fewer records than before: the report is a new one
};

struct ReportPoll {
  PollEvent event = PollEvent::kNone;
  std::optional<std::uint64_t> lost;  // kGap: the number of lost records, if it is known
  std::vector<std::string> records;   // new ones, oldest first
  bool reached_end = false;           // no record is after `records`
  bool is_blocked = false;            // the next record could not be read, but there is a record after it
  bool was_overrun = false;           // the ring advances faster than it can be read; there are no records then
};

// Threads: one thread. Costs: the first poll reads all records before `next`, so that a second match is noticed. Later
// polls read only the overlap and kNearRecords before `next`, if the position is found among these. Memory: one reply
// of the source, and eight bytes for each compared record.
class ReportFollower {
 public:
  static constexpr std::uint32_t kNearRecords = 1024;

  explicit ReportFollower(RecordSource& source, ReportPosition position = {});

  // Reads at most `count_max` new records, and at most as many as one reply of the source has. False: the source
  // failed. [owning thread]
  [[nodiscard]] bool Poll(std::uint32_t count_max, ReportPoll& poll);

  // Call this when the first `count` records of the last poll are delivered: the next poll returns the other ones
  // again. If `count` is 0 and the poll had new records, its event kGap or kStartedOver is reported again, otherwise
  // not. [owning thread]
  void Delivered(std::size_t count);

  [[nodiscard]] const ReportPosition& Position() const { return position_; }

  // The position after Delivered(count). [owning thread]
  [[nodiscard]] ReportPosition PositionAfter(std::size_t count) const;

 private:
  // One attempt at a poll: the position of the first new record, and the records that must be unchanged until all are
  // read.
  struct Attempt {
    ReportPoll poll;
    std::uint32_t place = 0;              // index of the first new record
    std::uint32_t first = 0;              // index of the first expected record
    std::vector<std::uint64_t> expected;  // hashes of the records from `first` on
    std::vector<std::uint64_t> hashes;    // of the new records
    bool is_torn = false;                 // the new records do not begin with the records that the search found
    bool is_steady = false;               // the ring did not advance over the read records
  };

  [[nodiscard]] bool Try(std::uint32_t count_max, Attempt& attempt);
  [[nodiscard]] bool Locate(Attempt& attempt);
  [[nodiscard]] bool LocateNear(Attempt& attempt, bool& is_located);
  void Settle(const OverlapPlace& found, std::uint32_t window_start, Attempt& attempt) const;
  void SettleMissing(const std::vector<std::uint64_t>& window, Attempt& attempt) const;
  [[nodiscard]] std::optional<std::uint64_t> LostRecords(const std::vector<std::uint64_t>& window) const;
  [[nodiscard]] bool ReadHashes(std::uint32_t first, std::uint32_t end, std::vector<std::uint64_t>& hashes);
  [[nodiscard]] bool ReadNew(std::uint32_t count_max, Attempt& attempt);
  [[nodiscard]] bool SearchForward(Attempt& attempt);
  [[nodiscard]] bool CheckSteady(Attempt& attempt);
  [[nodiscard]] bool KeepOverrun(const Attempt& attempt);

  RecordSource& source_;
  ReportPosition position_;
  Attempt last_;
  std::vector<std::uint64_t> overrun_;  // new records that an attempt read while the ring advanced
  std::size_t overrun_present_ = 0;     // the number of them, from the last on, that were still in the ring afterwards
  bool has_searched_all_ = false;
};

}  // namespace qx::report
