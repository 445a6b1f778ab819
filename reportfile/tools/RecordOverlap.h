// Finds the last delivered record in a ring that may have advanced.
//
// A record's index counts from the oldest record that is kept, so an index means another record as soon as a full ring
// has advanced. Only the text stays. A reader therefore keeps the hashes of the last delivered records, the overlap,
// and searches for the position after them:
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

// The number of the last delivered records that are kept. With more, a coincidence is less likely, and a reader that
// polls every second reads only a few kilobytes more for each poll.
inline constexpr std::size_t kOverlapRecords = 32;

// 64-bit FNV-1a of a record's bytes, with its line end. State files store it, so it never changes.
//   ""      => cbf29ce484222325
//   "a\r\n" => e5ad9b1904074ddb
[[nodiscard]] std::uint64_t RecordHash(std::string_view record);

enum class OverlapVerdict {
  kFound,      // one position matches, and the records before it distinguish it from others
  kAmbiguous,  // several positions match, or one after only equal records
  kMissing,    // no position matches
};

struct OverlapPlace {
  OverlapVerdict verdict = OverlapVerdict::kMissing;
  std::size_t index = 0;     // in the window, of the record after the last delivered one; the last if several match
  std::size_t compared = 0;  // the number of compared records before it

  friend bool operator==(const OverlapPlace&, const OverlapPlace&) = default;
};

// Searches for `overlap` (oldest first, not empty) in `window`. `from_oldest` says whether the window begins with the
// oldest record of the ring: if so, the first records of the overlap may have left the ring, and a match of the others
// is enough.
//
// A part counts as found only if no two records of the overlap are equal: if records repeat, one or two of them match
// anywhere. [any thread]
[[nodiscard]] OverlapPlace FindOverlap(std::span<const std::uint64_t> overlap, std::span<const std::uint64_t> window,
                                       bool from_oldest);

}  // namespace qx::report
