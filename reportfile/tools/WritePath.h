// Which texts of a report a writer could have overwritten between two reads of the header: for readers that must know
// whether the texts that they read in between are whole.
#pragma once

#include <cstdint>

#include "reportfile/StoreFormat.h"

namespace qx::report {

enum class WritePath {
  kNowhere,           // nothing was appended
  kAfterEveryRecord,  // the data file grew; no text was in the way
  kOverOldRound,      // up to the new position, through the texts of the round before
  kOverThisRound,     // the data file was restarted: from its start up to the new position, through texts of this round
  kEverywhere,        // through the texts of the round before, then from the start again; or a whole round
};

// The path of a writer from the header `reference` to the later header `after`, both with a plausible ring of one size.
// The writer meets texts of the round before as long as slots of `reference` lead to them.
//   data file restarted   texts of the round before
//   no                    no                          => kAfterEveryRecord
//   no                    yes                         => kOverOldRound
//   yes                   no                          => kOverThisRound
//   yes                   yes                         => kEverywhere
// Example: a ring of 3, so 6 records a round.
//   2 records => 5    => kAfterEveryRecord
//   7 records => 8    => kOverOldRound: two of the ring's three are of the round before
//   5 records => 7    => kOverThisRound
//   7 records => 12   => kEverywhere
[[nodiscard]] constexpr WritePath WritePathBetween(const IndexHeader& reference, const IndexHeader& after) {
  const std::uint32_t appended = after.elementCount - reference.elementCount;
  const std::uint32_t period = RecordsPerRound(reference);
  if (appended == 0) return WritePath::kNowhere;
  if (period != 0 && appended >= period) return WritePath::kEverywhere;
  const bool is_restarted = RecordsInRound(after) < RecordsInRound(reference);
  const bool has_old_round = RecordsInRound(reference) < reference.highestIndex;
  if (!is_restarted && !has_old_round) return WritePath::kAfterEveryRecord;
  if (!is_restarted && has_old_round) return WritePath::kOverOldRound;
  if (is_restarted && !has_old_round) return WritePath::kOverThisRound;
  return WritePath::kEverywhere;
}

}  // namespace qx::report
