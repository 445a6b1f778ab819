#include <gtest/gtest.h>

#include "markup/ElemPosTree.h"

namespace {

TEST(ElemPos, FieldsOfOneWordDoNotChangeEachOther) {
  ElemPos record{};
  record.SetTagLengths(0x3FFFFF, 0x3FF);
  EXPECT_EQ(record.tag_lengths, 0xFFFFFFFF);
  record.SetTagLengths(5, 7);
  EXPECT_EQ(record.tag_lengths, 5U | 7U << 22);
  EXPECT_EQ(record.StartTagLength(), 5U);
  EXPECT_EQ(record.EndTagLength(), 7U);
  record.Set(kElemFirst | kElemNoEnd);
  record.SetLevel(0xFFFF);
  EXPECT_EQ(record.level_and_flags, 0x18FFFFU);
  record.Clear(kElemFirst);
  record.SetLevel(1);
  EXPECT_EQ(record.level_and_flags, 0x100001U);
  EXPECT_EQ(kElemUnendedInside, 0x200000U);
  EXPECT_EQ(kElemIllFormed, 0x800000U);
}

TEST(ElemPosTree, SegmentIsAsLargeAsTheRequest) {
  ElemPosTree tree;
  EXPECT_EQ(tree.Capacity(), 0);
  EXPECT_EQ(tree.SegmentTableSize(), 0);
  tree.Grow(8);
  EXPECT_EQ(tree.Capacity(), 8);
  EXPECT_EQ(tree.SegmentTableSize(), 6);  // 2 * 1 + 4
  tree.Grow(5);
  EXPECT_EQ(tree.Capacity(), 8);
  tree.Grow(12);
  EXPECT_EQ(tree.Capacity(), 12);
  EXPECT_EQ(tree.SegmentTableSize(), 6);
}

TEST(ElemPosTree, TreeGrowsByOneSegmentAtMost) {
  ElemPosTree tree;
  tree.Grow(1000000);
  EXPECT_EQ(tree.Capacity(), 65536);
  tree.Grow(70000);
  EXPECT_EQ(tree.Capacity(), 70000);
  tree.Grow(1000000);
  EXPECT_EQ(tree.Capacity(), 3 * 65536);
}

TEST(ElemPosTree, RecordsKeepTheirValuesWhileTheTreeGrows) {
  ElemPosTree tree;
  std::uint32_t used = 0;
  for (const std::int64_t records :
       {8, 100, 65535, 65537, 98304, 131072, 147456, 500000, 500000, 500000, 500000, 500000}) {
    tree.Grow(records);
    for (; used < static_cast<std::uint32_t>(tree.Capacity()); ++used) tree[used].start = used;
    for (std::uint32_t i = 0; i < used; i += 997) ASSERT_EQ(tree[i].start, i);
    ASSERT_EQ(tree[used - 1].start, used - 1);
  }
  EXPECT_EQ(tree.Capacity(), 500000);
  EXPECT_EQ(tree.SegmentTableSize(), 18);  // 8 segments: the table grew from 2 * 1 + 4 to 2 * 7 + 4
}

TEST(ElemPosTree, IndexAbove65535IsInTheSecondSegment) {
  ElemPosTree tree;
  tree.Grow(65536);
  tree.Grow(65538);
  tree[65536].start = 1;
  tree[65537].start = 2;
  EXPECT_EQ(&tree[65537] - &tree[65536], 1);
  EXPECT_EQ(tree[0x10000].start, 1U);
  EXPECT_NE(&tree[0], &tree[65536]);
}

TEST(ElemPosTree, CopyHasTheRecordsInUse) {
  ElemPosTree tree;
  tree.Grow(65536);
  tree.Grow(70000);
  for (std::uint32_t i = 0; i < 66000; ++i) tree[i].start = i;
  const ElemPosTree copy(tree, 66000);
  EXPECT_EQ(copy.Capacity(), 70000);
  EXPECT_EQ(copy[65999].start, 65999U);
  EXPECT_NE(&copy[0], &tree[0]);
}

TEST(ElemPosTree, TreeCanGrowAgainAfterRemoveAll) {
  ElemPosTree tree;
  tree.Grow(100);
  tree.RemoveAll();
  EXPECT_EQ(tree.Capacity(), 0);
  tree.Grow(8);
  EXPECT_EQ(tree.Capacity(), 8);
}

}  // namespace
