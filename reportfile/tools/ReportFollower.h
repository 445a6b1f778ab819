// Reads the new records of a report, poll by poll, through an interface that numbers records from the oldest one kept.
//
// Each poll finds where the previous poll ended, by the texts before that place (RecordOverlap.h). It reads the new
// records together with the overlap before them, and then the beginning of this range again. A ring replaces its oldest
// record first: if the beginning is still there, everything after it was there during the read. Otherwise the poll
// starts over. Resuming an interrupted fetch and following a report are the same thing at different intervals.
//
// A follower cannot notice that a writer has meanwhile written the whole overlap again, record for record, and that the
// old overlap has left the ring.
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

  // Starts a new snapshot. False: a call failed, and the source knows why. [owning thread]
  [[nodiscard]] virtual bool Refresh() = 0;

  // The records from `start` on, at most `count_max` and as many as fit into one reply; no record after the last one.
  // `start` 0 starts a new snapshot, too. [owning thread]
  [[nodiscard]] virtual bool Read(std::uint32_t start, std::uint32_t count_max, std::vector<std::string>& records) = 0;
};

// The position up to which a report was delivered. A state file stores it.
struct ReportPosition {
  std::uint32_t next = 0;              // index of the next record, as long as the ring does not advance
  std::uint64_t delivered = 0;         // all delivered records
  std::vector<std::uint64_t> overlap;  // hashes of the last ones, oldest first; empty: nothing was delivered yet

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
  std::optional<std::uint64_t> lost;  // kGap: the number of records, if it is known
  std::vector<std::string> records;   // new ones, oldest first
  bool reached_end = false;           // there was no record after them
  bool is_blocked = false;            // no record could be read, but there is one after the next one
  bool was_overrun = false;           // the ring advances faster than it can be read: no records
};

// Threads: one thread.
// Costs: the first poll reads all records before the next one, so that a second match is noticed; later ones read only
// kNearRecords and the overlap, if the position is among these. Memory: one reply of the source, and eight bytes for
// each compared record.
class ReportFollower {
 public:
  static constexpr std::uint32_t kNearRecords = 1024;

  explicit ReportFollower(RecordSource& source, ReportPosition position = {});

  // Reads at most `count_max` new records, and no more than one reply of the source has. False: the source failed, and
  // the result is empty. [owning thread]
  [[nodiscard]] bool Poll(std::uint32_t count_max, ReportPoll& poll);

  // The first `count` records of the last poll were delivered; the others will be returned again. The event of the poll
  // is not reported again. [owning thread]
  void Delivered(std::size_t count);

  [[nodiscard]] const ReportPosition& Position() const { return position_; }

  // The position after Delivered(count). [owning thread]
  [[nodiscard]] ReportPosition PositionAfter(std::size_t count) const;

 private:
  // One attempt at a poll: the first new record, and the records that must stay until all are read.
  struct Attempt {
    ReportPoll poll;
    std::uint32_t place = 0;              // index of the first new record
    std::uint32_t first = 0;              // index of the first expected one
    std::vector<std::uint64_t> expected;  // hashes of the records from `first` on
    std::vector<std::uint64_t> hashes;    // of the new records
    bool is_torn = false;                 // the new records do not begin as the ring that was searched
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
  std::size_t overrun_present_ = 0;     // how many of them were still there at the end
  bool has_searched_all_ = false;
};

}  // namespace qx::report
