// Finds out which texts of a report a writer could have overwritten between two reads of the header. Readers use it to
// check that the texts that they read in between are whole.
#pragma once

#include <cstdint>

#include "reportfile/StoreFormat.h"

namespace qx::report {

enum class WritePath {
  kNowhere,           // nothing was appended
  kAfterEveryRecord,  // the data file grew; no text was overwritten
  kOverOldRound,      // from the old writePosition to the new one, over texts of the round before
  kOverThisRound,     // after a restart: from the start of the data file, over texts of the round of `reference`
  kEverywhere,        // over texts of the round before, and after a restart from the start again; or a whole round
};

// The path of a writer from the header `reference` to the later header `after`, both with a plausible ring of the same
// size. Texts of the round before are in the way of the writer as long as slots of `reference` lead to such texts.
//   data file restarted   texts of the round before
//   no                    no                          => kAfterEveryRecord
//   no                    yes                         => kOverOldRound
//   yes                   no                          => kOverThisRound
//   yes                   yes                         => kEverywhere
// Examples, for a ring of 3 slots and so 6 records in a round; the numbers are elementCount:
//   2 records => 5    => kAfterEveryRecord
//   7 records => 8    => kOverOldRound: two of the three records are of the round before
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
