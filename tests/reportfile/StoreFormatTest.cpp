#include "reportfile/StoreFormat.h"

#include <gtest/gtest.h>

namespace qx::report {
namespace {

TEST(StoreFormat, FileNamesAppendTheirExtensionToTheBasePath) {
  EXPECT_EQ(IndexFileName("/data/r1"), "/data/r1.ind");
  EXPECT_EQ(DataFileName("/data/r1"), "/data/r1.dat");
  EXPECT_EQ(IndexFileName("a.b"), "a.b.ind");
}

TEST(StoreFormat, SlotOffsetsDoNotWrapAtFourGigabytes) {
  EXPECT_EQ(SlotOffset(0), 24);
  EXPECT_EQ(SlotOffset(9999), 40020);
  EXPECT_EQ(SlotOffset(0x40000000), 0x100000018);
  EXPECT_EQ(SlotOffset(0xFFFFFFFF), 0x400000014);
}

TEST(StoreFormat, RingSizeZeroMeans1073741823Slots) {
  EXPECT_EQ(RingSize(0), 1073741823U);
  EXPECT_EQ(RingSize(1), 1U);
  EXPECT_EQ(RingSize(0xFFFFFFFF), 0xFFFFFFFF);
}

TEST(StoreFormat, LogicalRecordsBeginAtTheOldestSlotAndWrap) {
  const IndexHeader header{.maxRecord = 4, .highestIndex = 4, .oldestIndex = 2};
  EXPECT_EQ(SlotOfLogical(header, 0), 2U);
  EXPECT_EQ(SlotOfLogical(header, 1), 3U);
  EXPECT_EQ(SlotOfLogical(header, 2), 0U);
  EXPECT_EQ(SlotOfLogical(header, 3), 1U);
}

TEST(StoreFormat, LogicalRecordsOfARingWithoutSlotsAreTheSlots) {
  const IndexHeader header{.maxRecord = 0, .highestIndex = 4, .oldestIndex = 2};
  EXPECT_EQ(SlotOfLogical(header, 3), 5U);
}

TEST(StoreFormat, NewRecordsFillFreeSlotsThenReplaceTheOldest) {
  EXPECT_EQ(SlotForNewRecord({.maxRecord = 3, .highestIndex = 2, .oldestIndex = 0}), 2U);
  EXPECT_EQ(SlotForNewRecord({.maxRecord = 3, .highestIndex = 3, .oldestIndex = 1}), 1U);
  EXPECT_EQ(SlotForNewRecord({.maxRecord = 0x80000001, .highestIndex = 0x80000000}), 0x80000000);
}

TEST(StoreFormat, AdvancingTheRingComparesUnsigned) {
  IndexHeader header{.maxRecord = 0xFFFFFFFF, .highestIndex = 0xFFFFFFFE};
  AdvanceRing(header);
  EXPECT_EQ(header.highestIndex, 0xFFFFFFFF);
  header.oldestIndex = 0xFFFFFFFE;
  AdvanceRing(header);
  EXPECT_EQ(header.oldestIndex, 0U);
}

TEST(StoreFormat, AdvancingADamagedOldestIndexSetsItToZero) {
  IndexHeader header{.maxRecord = 3, .highestIndex = 3, .oldestIndex = 77};
  AdvanceRing(header);
  EXPECT_EQ(header.oldestIndex, 0U);
  header.oldestIndex = 0xFFFFFFFF;
  AdvanceRing(header);
  EXPECT_EQ(header.oldestIndex, 0U);
}

TEST(StoreFormat, SlotOfAgeDoesNotWrapIn32Bits) {
  const IndexHeader header{.maxRecord = 0xFFFFFFFF, .highestIndex = 0xFFFFFFFF, .oldestIndex = 0xFFFFFFFE};
  EXPECT_EQ(SlotOfAge(header, 0), 0xFFFFFFFE);
  EXPECT_EQ(SlotOfAge(header, 1), 0U);
  EXPECT_EQ(SlotOfAge(header, 5), 4U);
}

TEST(StoreFormat, PlausibleRingHasSlotsAndKeepsItsIndexesInside) {
  EXPECT_TRUE(HasPlausibleRing({.maxRecord = 3, .highestIndex = 3, .oldestIndex = 2}));
  EXPECT_FALSE(HasPlausibleRing({.maxRecord = 0, .highestIndex = 0, .oldestIndex = 0}));
  EXPECT_FALSE(HasPlausibleRing({.maxRecord = 3, .highestIndex = 4, .oldestIndex = 2}));
  EXPECT_FALSE(HasPlausibleRing({.maxRecord = 3, .highestIndex = 3, .oldestIndex = 3}));
}

TEST(StoreFormat, RoundsCountRecordsSinceTheLastRestart) {
  EXPECT_EQ(RecordsInRound({.elementCount = 5, .maxRecord = 3}), 5U);
  EXPECT_EQ(RecordsInRound({.elementCount = 6, .maxRecord = 3}), 0U);
  EXPECT_EQ(RecordsInRound({.elementCount = 13, .maxRecord = 3}), 1U);
  EXPECT_EQ(RecordsInRound({.elementCount = 13, .maxRecord = 3}, 11), 5U);
  EXPECT_EQ(RecordsInRound({.elementCount = 13, .maxRecord = 0x80000000}), 13U);  // never restarted
}

TEST(StoreFormat, DataFileRestartsAtEveryMultipleOfTwiceTheRingSize) {
  EXPECT_FALSE(DataFileRestarts({.elementCount = 5, .maxRecord = 3}));
  EXPECT_TRUE(DataFileRestarts({.elementCount = 6, .maxRecord = 3}));
  EXPECT_FALSE(DataFileRestarts({.elementCount = 9, .maxRecord = 3}));
  EXPECT_TRUE(DataFileRestarts({.elementCount = 12, .maxRecord = 3}));
  EXPECT_TRUE(DataFileRestarts({.elementCount = 0, .maxRecord = 3}));  // the count has wrapped at 2^32
}

TEST(StoreFormat, QuirkRestartPeriodIsComputedIn32Bits) {
  EXPECT_TRUE(DataFileRestarts({.elementCount = 6, .maxRecord = 0x80000003}));
  EXPECT_FALSE(DataFileRestarts({.elementCount = 6, .maxRecord = 0x80000000}));  // the period is 0: never
  EXPECT_FALSE(DataFileRestarts({.elementCount = 6, .maxRecord = 0}));
}

TEST(StoreFormat, MarkerOffsetStaysWideUntilItIsCut) {
  EXPECT_EQ(MarkerOffset(10, 5), 17);
  EXPECT_EQ(MarkerOffset(0xFFFFFFFF, 1), 0x100000002);
  EXPECT_EQ(Low32(MarkerOffset(0xFFFFFFFF, 1)), 2U);
}

TEST(StoreFormat, TailOfARecordIsLineEndAndMarker) {
  EXPECT_EQ(kLineEndAndMarker, std::string(kLineEnd) + std::string(kEndMarker));
}

}  // namespace
}  // namespace qx::report
