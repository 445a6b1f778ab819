// Where a reader left off, found again in a ring that may have moved.
//
// A record's index counts from the oldest record that is kept, so an index means another record as soon as a full ring
// has moved on. What stays is the text. A reader therefore remembers the hashes of the last records that it delivered,
// the overlap, and searches for the place that follows them:
//
//   delivered   a b c d            overlap a b c d, next index 4
//   ring now    c d e f g h        place 2: c d are before it, a b have left the ring; e f g h are new
//
// Everything here is pure; ReportFollower does the reading.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace qx::report {

// How many of the last delivered records are remembered. More make a coincidence less likely and cost a reader that
// scans every second only a few kilobytes a scan.
inline constexpr std::size_t kOverlapRecords = 32;

// 64-bit FNV-1a of a record's bytes, line end included. State files hold it, so it never changes.
//   ""      => cbf29ce484222325
//   "a\r\n" => e5ad9b1904074ddb
[[nodiscard]] std::uint64_t RecordHash(std::string_view record);

enum class OverlapVerdict {
  kFound,      // one place fits, and the records before it distinguish it from others
  kAmbiguous,  // several fit, or one, before which there are only equal records
  kMissing,    // none fits
};

struct OverlapPlace {
  OverlapVerdict verdict = OverlapVerdict::kMissing;
  std::size_t index = 0;     // in the window, of the record after the last delivered one; the last if several fit
  std::size_t compared = 0;  // how many records before it were compared

  friend bool operator==(const OverlapPlace&, const OverlapPlace&) = default;
};

// Searches for `overlap` (oldest first, not empty) in `window`. `from_oldest` says whether the window begins with the
// oldest record of the ring: only then may the overlap's beginning have left it, so that a part of it is enough.
//
// A part counts as found only if no two records of the overlap are equal: in a report whose records repeat, one or two
// of them fit anywhere. [any thread]
[[nodiscard]] OverlapPlace FindOverlap(std::span<const std::uint64_t> overlap, std::span<const std::uint64_t> window,
                                       bool from_oldest);

}  // namespace qx::report
