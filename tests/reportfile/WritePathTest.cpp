// Tests which texts a writer can overwrite between two headers of a report.
#include "reportfile/tools/WritePath.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

namespace qx::report {
namespace {

// The header of a ring after `count` records. The places of the texts do not matter here.
IndexHeader HeaderAfter(std::uint32_t ring, std::uint32_t count) {
  IndexHeader header;
  header.maxRecord = ring;
  header.elementCount = count;
  header.highestIndex = std::min(ring, count);
  return header;
}

struct Row {
  std::uint32_t ring;
  std::uint32_t reference;  // records written at the first header ...
  std::uint32_t after;      // ... and at the second one
  WritePath path;
};

TEST(WritePath, RestartAndRecordsOfTheRoundBeforeMakeFourCases) {
  constexpr std::uint32_t kNeverRestarted = 1U << 31;
  const Row rows[] = {
      {3, 0, 0, WritePath::kNowhere},
      {3, 7, 7, WritePath::kNowhere},
      {3, 0, 5, WritePath::kAfterEveryRecord},
      {3, 2, 5, WritePath::kAfterEveryRecord},
      {3, 3, 4, WritePath::kAfterEveryRecord},
      {kNeverRestarted, 5, 4000000000, WritePath::kAfterEveryRecord},
      {3, 6, 7, WritePath::kOverOldRound},  // the file has just been restarted: all three are of the round before
      {3, 7, 8, WritePath::kOverOldRound},
      {3, 8, 11, WritePath::kOverOldRound},  // one of the three is of the round before
      {3, 2, 6, WritePath::kOverThisRound},
      {3, 5, 7, WritePath::kOverThisRound},
      {3, 9, 14, WritePath::kOverThisRound},          // all three are of this round again
      {3, 0xFFFFFFFF, 0, WritePath::kOverThisRound},  // the count wraps, and a count of 0 restarts the file
      {3, 7, 12, WritePath::kEverywhere},
      {3, 8, 13, WritePath::kEverywhere},
      {3, 2, 8, WritePath::kEverywhere},  // a whole round
      {3, 9, 100, WritePath::kEverywhere},
      {1, 1, 2, WritePath::kOverThisRound},
      {1, 2, 3, WritePath::kOverOldRound},
      {1, 1, 3, WritePath::kEverywhere},
  };
  for (const Row& row : rows) {
    const WritePath path = WritePathBetween(HeaderAfter(row.ring, row.reference), HeaderAfter(row.ring, row.after));
    EXPECT_EQ(path, row.path) << "ring " << row.ring << ", " << row.reference << " => " << row.after;
  }
}

}  // namespace
}  // namespace qx::report
