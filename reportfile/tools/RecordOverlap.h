// Finds the last delivered record in a ring that may have advanced.
//
// A record's index counts from the oldest record in the ring. So as soon as a full ring has advanced, an index means
// another record. Only the record's text stays the same. A reader therefore keeps the hashes of the last delivered
// records, the overlap, and searches for the position after these records:
//
//   delivered   a b c d            overlap a b c d, next index 4
//   ring now    c d e f g h        place 2: c d are before it, a b have left the ring; e f g h are new
//
// No function here reads a report; ReportFollower does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace qx::report {

// The number of the last delivered records that are kept. The more are kept, the less likely is a match by chance. A
// reader that polls every second reads only a few kilobytes more for them in each poll.
inline constexpr std::size_t kOverlapRecords = 32;

// 64-bit FNV-1a of a record's bytes, with its line end. State files contain such hashes, so the function never changes.
//   ""      => cbf29ce484222325
//   "a\r\n" => e5ad9b1904074ddb
[[nodiscard]] std::uint64_t RecordHash(std::string_view record);

enum class OverlapVerdict {
  kFound,      // one position matches, and the records before it distinguish it from others
  kAmbiguous,  // several positions match, or only equal records are before the one that matches
  kMissing,    // no position matches
};

struct OverlapPlace {
  OverlapVerdict verdict = OverlapVerdict::kMissing;
  std::size_t index = 0;     // in the window, of the record after the last delivered one; the last of several matches
  std::size_t compared = 0;  // the number of records before `index` that were compared

  friend bool operator==(const OverlapPlace&, const OverlapPlace&) = default;
};

// Searches for `overlap` (oldest first, not empty) in `window`. `from_oldest`: the window begins with the oldest record
// of the ring. Then the first records of the overlap may have left the ring, and a match of the other ones is enough.
//
// If only a part of the overlap matches, it counts as found only if no two records of the overlap are equal: one or two
// repeated records would match in many places. [any thread]
[[nodiscard]] OverlapPlace FindOverlap(std::span<const std::uint64_t> overlap, std::span<const std::uint64_t> window,
                                       bool from_oldest);

}  // namespace qx::report
